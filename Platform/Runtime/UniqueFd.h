// UniqueFd: the one owner of a file descriptor. Every descriptor of the layer lives in one from the
// moment it exists, with close-on-exec set at birth by the call that made it.
#pragma once

#include <utility>

namespace Platform {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }  // -1 when empty
  bool isValid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (const int old = std::exchange(fd_, fd); old >= 0) close(old);
  }
  int release() { return std::exchange(fd_, -1); }

 private:
  static void close(int fd);

  int fd_ = -1;
};

}  // namespace Platform
