// The bare floor's client: blocking sendmsg and recvmsg. With many requests in flight it asks anew,
// by one call, for as many endpoints as the last recvmsg brought.
#include <sys/socket.h>

#include "Benchmarks/Broker/Contender.h"
#include "Benchmarks/Broker/FloorFrames.h"
#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {
namespace {

class FloorClient : public Client {
 public:
  explicit FloorClient(Descriptor socket) : socket_(std::move(socket)) {}

  bool retrieve(const std::string& identifier) override {
    return retrieveEndpoint(identifier).isValid();
  }

  Descriptor retrieveEndpoint(const std::string& identifier) {
    call(FrameKind::retrieve, identifier);
    return reader_.takeDescriptor();
  }

  void registerEndpoint(const std::string& identifier) override {
    registerEndpoint(identifier, ownEndpoint());
  }

  void registerEndpoint(const std::string& identifier, int endpoint) {
    call(FrameKind::registration, identifier, {&endpoint, 1});
  }

  std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                              unsigned inFlight) override {
    std::vector<char> requests;
    for (unsigned i = 0; i < inFlight; ++i) {
      appendFrame(requests, {FrameKind::retrieve, 0, identifier});
    }
    const std::size_t requestSize = requests.size() / inFlight;

    send(requests);
    std::uint64_t asked = inFlight;
    std::uint64_t answered = 0;
    while (answered < asked) {
      if (!reader_.receive()) fail("the broker is gone");
      std::size_t arrived = 0;
      while (reader_.next()) {
        if (!reader_.takeDescriptor().isValid()) fail("a reply without endpoint");
        ++arrived;
      }
      answered += arrived;
      if (goesOn(answered)) {
        send(std::span(requests).first(arrived * requestSize));
        asked += arrived;
      }
    }
    return answered;
  }

 private:
  void call(FrameKind kind, std::string_view payload, std::span<const int> descriptors = {}) {
    request_.clear();
    appendFrame(request_, {kind, 0, payload});
    send(request_, descriptors);
    if (!reader_.wait()) fail("the broker is gone");
  }

  void send(std::span<const char> bytes, std::span<const int> descriptors = {}) {
    if (!sendAll(socket_.get(), bytes, descriptors)) fail("cannot send");
  }

  const Descriptor socket_;
  FrameReader reader_{socket_.get()};
  std::vector<char> request_;
};

std::unique_ptr<Client> connect(const std::string& address) {
  return std::make_unique<FloorClient>(connectTo(address));
}

void host(const std::string& address, const std::string& identifier, void (*ready)()) {
  const AnonymousListener listener = makeAnonymousListener();
  FloorClient(connectTo(address)).registerEndpoint(identifier, listener.endpoint.get());
  ready();
  std::vector<char> answer;
  appendFrame(answer, {FrameKind::reply, 0, {}});
  for (;;) {
    const Descriptor peer(::accept4(listener.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    FrameReader reader(peer.get());
    while (reader.wait() && sendAll(peer.get(), answer)) {
    }
  }
}

void meet(const std::string& address, const std::string& identifier) {
  FloorClient broker(connectTo(address));
  const Descriptor endpoint = broker.retrieveEndpoint(identifier);
  if (!endpoint.isValid()) fail("nothing to meet");
  FloorClient peer(connectToEndpoint(endpoint.get()));
  peer.retrieve("hello");  // the first message; whoever hosts answers any frame with an empty reply
}

}  // namespace

const Contender contender{connect, host, meet};

}  // namespace Benchmark
