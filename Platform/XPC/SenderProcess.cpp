#include "Platform/XPC/SenderProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <optional>
#include <sstream>
#include <string>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

std::uint64_t ticksNow() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ticks = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));  // a second
  constexpr std::uint64_t second = 1'000'000'000;                         // nanoseconds
  return static_cast<std::uint64_t>(now.tv_sec) * ticks +
         static_cast<std::uint64_t>(now.tv_nsec) * ticks / second;
}

// When the process began, on the same clock.
std::optional<std::uint64_t> beginningOf(pid_t number) {
  const std::string path = "/proc/" + std::to_string(number) + "/stat";
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[1024];
  const ssize_t count = ::read(file.get(), bytes, sizeof bytes);
  if (count <= 0) return std::nullopt;
  // As of proc(5): the second field is a name in parentheses that may hold anything, the 22nd is
  // the process's beginning.
  const std::string fields(bytes, static_cast<std::size_t>(count));
  std::istringstream rest(fields.substr(fields.rfind(')') + 1));
  std::string passedOver;
  for (int field = 3; field < 22; ++field) rest >> passedOver;
  std::uint64_t beginning;
  return rest >> beginning ? std::optional(beginning) : std::nullopt;
}

}  // namespace

SenderProcess::SenderProcess(pid_t number) : number_(number), seen_(ticksNow()) {}

bool SenderProcess::isStill(pid_t number) const {
  if (number <= 0 || number != number_) return false;
  const auto beginning = beginningOf(number);
  return beginning && *beginning <= seen_;
}

}  // namespace Platform
