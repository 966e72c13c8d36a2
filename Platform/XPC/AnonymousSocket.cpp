#include "Platform/XPC/AnonymousSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Platform/Runtime/RuntimeDirectory.h"
#include "Platform/XPC/Socket.h"

namespace Platform {
namespace {

constexpr std::size_t nameLength = 33;  // a full stop and 32 hexadecimal digits

std::string randomName() {
  std::uint64_t random[2] = {};
  // Fails only before the system has gathered randomness at boot; the bind then meets a taken name.
  [[maybe_unused]] const auto filled = ::getrandom(random, sizeof random, 0);
  char name[nameLength + 1];
  std::snprintf(name, sizeof name, ".%016llx%016llx", static_cast<unsigned long long>(random[0]),
                static_cast<unsigned long long>(random[1]));
  return name;
}

bool isRandomName(std::string_view name) {
  return name.size() == nameLength && name[0] == '.' &&
         name.find_first_not_of("0123456789abcdef", 1) == std::string_view::npos;
}

UniqueFd lock(const std::string& directory, int operation) {
  UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (opened.isValid() && ::flock(opened.get(), operation) != 0) {
    if (errno != EINTR) opened.reset();
  }
  return opened;
}

}  // namespace

std::optional<AnonymousSocket> makeAnonymousSocket() {
  const auto directory = runtimeDirectory();
  if (!directory) return std::nullopt;
  const UniqueFd locked = lock(*directory, LOCK_SH);
  if (!locked.isValid()) return std::nullopt;
  const std::string path = *directory + "/" + randomName();
  UniqueFd socket = bindTo(path);
  if (!socket.isValid()) return std::nullopt;
  UniqueFd capability(::open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
  ::unlink(path.c_str());
  if (!capability.isValid() || !listenOn(socket.get())) return std::nullopt;
  const auto listening = std::make_shared<const UniqueFd>(std::move(socket));
  return AnonymousSocket{listening,
                         std::make_shared<NSXPCListenerEndpoint>(std::move(capability), listening)};
}

void removeLeftOverSocketNames() {
  const auto directory = runtimeDirectory();
  if (!directory) return;
  const UniqueFd locked = lock(*directory, LOCK_EX | LOCK_NB);
  if (!locked.isValid()) return;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(*directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (isRandomName(entry->path().filename().native())) ::unlink(entry->path().c_str());
  }
}

}  // namespace Platform
