// The floors' server: a broker of nothing but blocking recvmsg and sendmsg, one thread for each
// connection.
//
//   bench_floor_server bare REPLIES_PER_CALL
//   bench_floor_server fair REPLIES_PER_CALL
//
// Bare is the physical limit: identifiers are checked to be UTF-8, by a vectorised library, and
// hashed. Fair is the least that an honest broker does: it also looks at each endpoint that it is
// given, and logs each request.
//
// With 1, each reply leaves by a sendmsg of its own. With more, the replies to what one recvmsg
// brought leave together, at most so many a call, and the socket's buffer is kept small so that a
// client that does not read cannot hold many descriptors in flight.
#include <simdjson.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Benchmarks/Broker/FloorFrames.h"
#include "Benchmarks/Broker/FloorLog.h"
#include "Benchmarks/Broker/Registry.h"
#include "Benchmarks/Broker/Sockets.h"

using namespace Benchmark;

namespace {

constexpr int gatheredSendBuffer = 16 << 10;

// Replies that wait to be sent by one call.
class Replies {
 public:
  Replies(int socket, std::size_t perCall) : socket_(socket), perCall_(perCall) {}

  bool add(std::uint64_t serial, Registry::Endpoint endpoint) {
    appendFrame(bytes_, {endpoint ? FrameKind::replyWithEndpoint : FrameKind::reply, serial, {}});
    if (endpoint) {
      descriptors_.push_back(endpoint->get());
      endpoints_.push_back(std::move(endpoint));
    }
    return ++count_ < perCall_ || flush();
  }

  bool flush() {
    const bool sent = sendAll(socket_, bytes_, descriptors_);
    count_ = 0;
    bytes_.clear();
    descriptors_.clear();
    endpoints_.clear();
    return sent;
  }

 private:
  const int socket_;
  const std::size_t perCall_;
  std::size_t count_ = 0;
  std::vector<char> bytes_;
  std::vector<int> descriptors_;
  std::vector<Registry::Endpoint> endpoints_;  // keeps the descriptors open until they are sent
};

// Whether it is an O_PATH descriptor of a socket: the inode of any other is on the device of
// sockets.
bool isEndpoint(const Descriptor& descriptor) {
  static const dev_t socketDevice = [] {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct stat status {};
    ::fstat(socket.get(), &status);
    return status.st_dev;
  }();
  struct stat status {};
  return ::fstat(descriptor.get(), &status) == 0 && S_ISSOCK(status.st_mode) &&
         status.st_dev != socketDevice;
}

// Until the peer goes, or breaks the rules. Without a log: the bare floor.
void serve(Descriptor connection, Registry& registry, FloorLog* log, std::size_t repliesPerCall) {
  FrameReader reader(connection.get());
  Replies replies(connection.get(), repliesPerCall);
  while (reader.receive()) {
    while (const std::optional<Frame> request = reader.next()) {
      const std::string_view identifier = request->payload;
      if (!simdjson::validate_utf8(identifier)) return;
      Registry::Endpoint endpoint;
      if (request->kind == FrameKind::registration) {
        Descriptor given = reader.takeDescriptor();
        if (log) {
          if (!isEndpoint(given)) return;
          log->add("registerListenerEndpoint forIdentifier=", identifier);
        }
        registry.put(identifier, std::move(given));
      } else {
        if (log) log->add("retrieveListenerEndpoint forIdentifier=", identifier);
        endpoint = registry.find(identifier);
      }
      if (!replies.add(request->serial, std::move(endpoint))) return;
    }
    if (!replies.flush()) return;
  }
}

}  // namespace

int main(int, char** arguments) {
  raiseDescriptorLimit();
  std::optional<FloorLog> log;
  if (arguments[1] == std::string_view("fair")) log.emplace();
  const std::size_t repliesPerCall = std::strtoul(arguments[2], nullptr, 10);
  const Descriptor listener = handedSocket();
  Registry registry;
  for (;;) {
    Descriptor connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.isValid()) fail("accept");
    if (repliesPerCall > 1) {
      ::setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &gatheredSendBuffer,
                   sizeof gatheredSendBuffer);
    }
    std::thread([&, repliesPerCall, connection = std::move(connection)]() mutable {
      serve(std::move(connection), registry, log ? &*log : nullptr, repliesPerCall);
    }).detach();
  }
}
