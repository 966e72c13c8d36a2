#include "Platform/XPC/NamedService.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Platform/Runtime/RuntimeDirectory.h"
#include "Platform/XPC/Socket.h"

namespace Platform {
namespace {

// The socket that the service manager opened for this name; see sd_listen_fds(3).
UniqueFd handedOverSocket(const std::string& name) {
  char** names = nullptr;
  const int count = ::sd_listen_fds_with_names(0, &names);
  UniqueFd socket;
  for (int i = 0; i < count; ++i) {
    const int descriptor = SD_LISTEN_FDS_START + i;
    if (!socket.isValid() && name == names[i] &&
        ::sd_is_socket(descriptor, AF_UNIX, SOCK_STREAM, 1) > 0) {
      socket.reset(descriptor);
    }
    std::free(names[i]);
  }
  std::free(names);
  if (socket.isValid()) {
    ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) | O_NONBLOCK);
  }
  return socket;
}

}  // namespace

std::optional<std::string> namedServicePath(const Text& name) {
  const std::string& bytes = name.utf8();
  if (bytes.empty() || bytes.find('/') != std::string::npos) return std::nullopt;
  const auto directory = runtimeDirectory();
  if (!directory) return std::nullopt;
  std::string path = *directory + "/" + bytes + ".socket";
  if (!fitsSocketAddress(path)) return std::nullopt;
  return path;
}

std::unique_ptr<NamedService> NamedService::claim(const Text& name) {
  std::unique_ptr<NamedService> service(new NamedService);
  service->socket_ = handedOverSocket(name.utf8());
  if (service->socket_.isValid()) return service;

  const auto path = namedServicePath(name);
  if (!path) return nullptr;
  service->path_ = *path;
  const std::string stem = path->substr(0, path->size() - std::string(".socket").size());
  // The lock file is never removed: whoever holds the lock of a removed one would own nothing.
  service->lock_.reset(::open((stem + ".lock").c_str(),
                              O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!service->lock_.isValid() || ::flock(service->lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    return nullptr;
  }
  // A socket that takes connections has an owner, even when nobody has accepted one yet: a service
  // manager that starts its agent on the first.
  if (connectTo(*path).outcome != ConnectOutcome::refused) return nullptr;
  const std::string temporary = stem + ".new";
  ::unlink(temporary.c_str());
  service->socket_ = bindTo(temporary);
  if (!service->socket_.isValid()) return nullptr;
  service->temporaryPath_ = temporary;
  return service;
}

NamedService::~NamedService() {
  if (!temporaryPath_.empty()) ::unlink(temporaryPath_.c_str());
}

bool NamedService::publish() {
  if (temporaryPath_.empty()) return true;
  if (!listenOn(socket_.get()) || ::rename(temporaryPath_.c_str(), path_.c_str()) != 0)
    return false;
  temporaryPath_.clear();
  return true;
}

}  // namespace Platform
