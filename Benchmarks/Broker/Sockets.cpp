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

Descriptor streamSocket() {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isValid()) fail("socket");
  return socket;
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(EXIT_FAILURE);
}

Descriptor listenAt(const std::string& path) {
  Descriptor socket = streamSocket();
  const sockaddr_un address = addressOf(path);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    fail("cannot listen at " + path);
  }
  return socket;
}

Descriptor connectTo(const std::string& path) {
  Descriptor socket = streamSocket();
  const sockaddr_un address = addressOf(path);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("cannot connect to " + path);
  }
  return socket;
}

Descriptor handedSocket() {
  return Descriptor(firstHandedDescriptor);
}

AnonymousListener makeAnonymousListener() {
  const char* const directory = std::getenv("XDG_RUNTIME_DIR");
  const std::string path =
      std::string(directory ? directory : "/tmp") + "/listener-" + std::to_string(::getpid());
  Descriptor socket = listenAt(path);
  Descriptor endpoint(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!endpoint.isValid() || ::unlink(path.c_str()) != 0) fail(path);
  return {std::move(socket), std::move(endpoint)};
}

int ownEndpoint() {
  static const AnonymousListener listener = makeAnonymousListener();
  return listener.endpoint.get();
}

Descriptor connectToEndpoint(int endpoint) {
  return connectTo("/proc/self/fd/" + std::to_string(endpoint));
}

Descriptor duplicate(int descriptor) {
  Descriptor copy(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
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
