// SenderProcess: the process that sent something, told apart from any other, before or after it.
//
// The kernel says with a message which process sent it (unix(7), SO_PASSCRED), by a number that is
// given again when the process is gone. With the time at which it began it names one process, and
// nothing has to be kept open for it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace Platform {

// A value.
class SenderProcess {
 public:
  // The process that has the number now. None when there is none, or it cannot be seen from here.
  static std::optional<SenderProcess> of(pid_t number);

  friend bool operator==(const SenderProcess&, const SenderProcess&) = default;

 private:
  SenderProcess(pid_t number, std::uint64_t beginning) : number_(number), beginning_(beginning) {}

  pid_t number_;
  std::uint64_t beginning_;  // since the machine's, in clock ticks
};

}  // namespace Platform
