// The floor: a broker of nothing but blocking recvmsg and sendmsg, one thread per connection.
//
//   bench_floor_server REPLIES_PER_CALL
//
// With 1, each reply leaves by a sendmsg of its own. With more, the replies to what one recvmsg
// brought leave together, at most so many a call, and the socket's buffer is kept small so that a
// client that does not read cannot hold many descriptors in flight.
//
// Identifiers are checked to be UTF-8, by a vectorised library, and hashed: what no broker of texts
// can leave out.
#include <simdjson.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/Broker/FloorFrames.h"
#include "Benchmarks/Broker/Registry.h"
#include "Benchmarks/Broker/Sockets.h"

using namespace Benchmark;
using Platform::UniqueFd;

namespace {

constexpr int gatheredSendBuffer = 16 << 10;

// Replies that wait to be sent by one call.
class Replies {
 public:
  Replies(int socket, std::size_t perCall) : socket_(socket), perCall_(perCall) {}

  bool add(Registry::Endpoint endpoint) {
    appendFrame(bytes_, endpoint ? FrameKind::replyWithEndpoint : FrameKind::reply);
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

void serve(UniqueFd connection, Registry& registry, std::size_t repliesPerCall) {
  FrameReader reader(connection.get());
  Replies replies(connection.get(), repliesPerCall);
  while (reader.receive()) {
    while (const std::optional<Frame> request = reader.next()) {
      const std::string_view identifier = request->payload;
      if (!simdjson::validate_utf8(identifier)) return;
      Registry::Endpoint endpoint;
      if (request->kind == FrameKind::registration) {
        registry.put(identifier, reader.takeDescriptor());
      } else {
        endpoint = registry.find(identifier);
      }
      if (!replies.add(std::move(endpoint))) return;
    }
    if (!replies.flush()) return;
  }
}

}  // namespace

int main(int, char** arguments) {
  raiseDescriptorLimit();
  const std::size_t repliesPerCall = std::strtoul(arguments[1], nullptr, 10);
  const UniqueFd listener = handedSocket();
  Registry registry;
  for (;;) {
    UniqueFd connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.isValid()) fail("accept");
    if (repliesPerCall > 1) {
      ::setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &gatheredSendBuffer,
                   sizeof gatheredSendBuffer);
    }
    std::thread([&registry, repliesPerCall, connection = std::move(connection)]() mutable {
      serve(std::move(connection), registry, repliesPerCall);
    }).detach();
  }
}
