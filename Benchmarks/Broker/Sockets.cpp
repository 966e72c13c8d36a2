#include "Benchmarks/Broker/Sockets.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using Platform::UniqueFd;

namespace Benchmark {
namespace {

constexpr int firstHandedDescriptor = 3;  // SD_LISTEN_FDS_START, see sd_listen_fds(3)

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    fail(path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

UniqueFd streamSocket() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isValid()) fail("socket");
  return socket;
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(EXIT_FAILURE);
}

UniqueFd listenAt(const std::string& path) {
  UniqueFd socket = streamSocket();
  const sockaddr_un address = addressOf(path);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    fail("cannot listen at " + path);
  }
  return socket;
}

UniqueFd connectTo(const std::string& path) {
  UniqueFd socket = streamSocket();
  const sockaddr_un address = addressOf(path);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("cannot connect to " + path);
  }
  return socket;
}

UniqueFd handedSocket() {
  return UniqueFd(firstHandedDescriptor);
}

AnonymousListener makeAnonymousListener() {
  const char* const directory = std::getenv("XDG_RUNTIME_DIR");
  const std::string path =
      std::string(directory ? directory : "/tmp") + "/listener-" + std::to_string(::getpid());
  UniqueFd socket = listenAt(path);
  UniqueFd endpoint(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!endpoint.isValid() || ::unlink(path.c_str()) != 0) fail(path);
  return {std::move(socket), std::move(endpoint)};
}

int ownEndpoint() {
  static const AnonymousListener listener = makeAnonymousListener();
  return listener.endpoint.get();
}

UniqueFd connectToEndpoint(int endpoint) {
  return connectTo("/proc/self/fd/" + std::to_string(endpoint));
}

UniqueFd duplicate(int descriptor) {
  UniqueFd copy(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!copy.isValid()) fail("cannot duplicate a descriptor");
  return copy;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) fail("getrlimit");
  limit.rlim_cur = limit.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) fail("setrlimit");
}

}  // namespace Benchmark
