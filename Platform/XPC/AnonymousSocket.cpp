#include "Platform/XPC/AnonymousSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Platform/Dispatch/WorkerPool.h"
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

UniqueFd openToLock(const std::string& directory) {
  return UniqueFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool lock(const UniqueFd& directory, int operation) {
  return ::flock(directory.get(), operation | LOCK_NB) == 0;
}

// Whoever removes leftovers is done in a moment. Any process of this user can hold the lock for
// longer, and must not hold up others: then it goes without.
void lockShared(const UniqueFd& directory) {
  if (lock(directory, LOCK_SH)) return;
  const WorkerPool::BlockingRegion waiting;
  for (int tries = 0; tries < 100 && !lock(directory, LOCK_SH); ++tries) ::poll(nullptr, 0, 10);
}

}  // namespace

std::optional<AnonymousSocket> makeAnonymousSocket() {
  const auto directory = runtimeDirectory();
  if (!directory) return std::nullopt;
  const UniqueFd locked = openToLock(*directory);
  if (!locked.isValid()) return std::nullopt;
  lockShared(locked);
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
  const UniqueFd locked = openToLock(*directory);
  if (!locked.isValid() || !lock(locked, LOCK_EX)) return;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(*directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (isRandomName(entry->path().filename().native())) ::unlink(entry->path().c_str());
  }
}

}  // namespace Platform
