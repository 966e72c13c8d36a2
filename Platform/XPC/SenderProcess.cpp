#include "Platform/XPC/SenderProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

std::optional<SenderProcess> SenderProcess::of(pid_t number) {
  if (number <= 0) return std::nullopt;
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
  if (!(rest >> beginning)) return std::nullopt;
  return SenderProcess(number, beginning);
}

}  // namespace Platform
