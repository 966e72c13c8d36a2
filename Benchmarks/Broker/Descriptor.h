// Descriptor: the benchmark's own owner of a file descriptor. Nothing but the agent's own client is
// made with the product's code: what it is compared with must not change when the product does.
#pragma once

#include <unistd.h>

#include <utility>

namespace Benchmark {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (isValid()) ::close(number_);
  }

  int get() const { return number_; }  // -1 when empty
  bool isValid() const { return number_ >= 0; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

}  // namespace Benchmark
