// SenderProcess: a process that has sent something, told apart from any that sends later.
//
// The kernel says with a message which process sent it (unix(7), SO_PASSCRED), by a number that is
// given again when the process is gone. Whoever has it later is the same process when it began
// before it was first seen, or within the same clock tick, a hundredth of a second. So nothing has
// to be kept open for it, and most are never looked at.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace Platform {

// A value.
class SenderProcess {
 public:
  SenderProcess() = default;  // none
  // The process that has the number, and has sent something just now.
  explicit SenderProcess(pid_t number);

  // Whether the process that has the number now is this one. False when it cannot be seen from
  // here.
  bool isStill(pid_t number) const;

 private:
  pid_t number_ = 0;
  std::uint64_t seen_ = 0;  // since the machine's beginning, in clock ticks
};

}  // namespace Platform
