// AnsweringProcess: which process sent the answer that a reply block is being called with.
#pragma once

#include <cstdint>
#include <utility>

namespace Platform {

// On one thread, as a local variable around the reply block's call.
class AnsweringProcess {
 public:
  explicit AnsweringProcess(std::uint64_t number) : outer_(std::exchange(current_, number)) {}
  ~AnsweringProcess() { current_ = outer_; }
  AnsweringProcess(const AnsweringProcess&) = delete;
  AnsweringProcess& operator=(const AnsweringProcess&) = delete;

  static std::uint64_t current() { return current_; }  // 0 outside

 private:
  static inline thread_local std::uint64_t current_ = 0;
  const std::uint64_t outer_;
};

}  // namespace Platform
