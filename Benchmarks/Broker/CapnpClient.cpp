// The Cap'n Proto contender's client: promises, waited for one by one or kept in flight.
#include <kj/async-io.h>
#include <kj/vector.h>

#include "Benchmarks/Broker/CapnpEndpoint.h"
#include "Benchmarks/Broker/Contender.h"

namespace Benchmark {
namespace {

// One event loop serves all clients of this process: the library allows one per thread.
kj::AsyncIoContext& eventLoop() {
  static kj::AsyncIoContext context = kj::setupAsyncIo();
  return context;
}

class CapnpClient : public Client {
 public:
  explicit CapnpClient(const std::string& address)
      : stream_(eventLoop().lowLevelProvider->wrapUnixSocketFd(
            connectTo(address).release(), kj::LowLevelAsyncIoProvider::TAKE_OWNERSHIP)),
        network_(*stream_, descriptorsPerMessage),
        broker_(network_.bootstrap().castAs<Capnp::Broker>()) {}

  ~CapnpClient() noexcept override = default;  // the library's own destructors may throw

  bool retrieve(const std::string& identifier) override {
    return ask(identifier).wait(eventLoop().waitScope);
  }

  void registerEndpoint(const std::string& identifier) override {
    auto request = broker_.registerRequest();
    request.setIdentifier({identifier.data(), identifier.size()});
    request.setEndpoint(kj::heap<CapnpEndpoint>(duplicate(ownEndpoint())));
    request.send().wait(eventLoop().waitScope);
  }

  std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                              unsigned inFlight) override {
    std::uint64_t answered = 0;
    auto lanes = kj::heapArrayBuilder<kj::Promise<void>>(inFlight);
    for (unsigned i = 0; i < inFlight; ++i) lanes.add(lane(goesOn, identifier, answered));
    kj::joinPromises(lanes.finish()).wait(eventLoop().waitScope);
    return answered;
  }

 private:
  // One retrieval; the endpoint's descriptor closes with the capability that carries it.
  kj::Promise<bool> ask(const std::string& identifier) {
    auto request = broker_.retrieveRequest();
    request.setIdentifier({identifier.data(), identifier.size()});
    return request.send().then([](auto&& reply) -> kj::Promise<bool> {
      if (!reply.hasEndpoint()) return false;
      Capnp::Endpoint::Client endpoint = reply.getEndpoint();
      auto descriptor = endpoint.getFd();
      return descriptor.then(
          [endpoint = kj::mv(endpoint)](kj::Maybe<int> fd) { return fd != nullptr; });
    });
  }

  // One retrieval after the other.
  kj::Promise<void> lane(const GoesOn& goesOn, const std::string& identifier,
                         std::uint64_t& answered) {
    return ask(identifier)
        .then([this, &goesOn, &identifier, &answered](bool found) -> kj::Promise<void> {
          if (!found) fail("a reply without endpoint");
          ++answered;
          if (!goesOn(answered)) return kj::READY_NOW;
          return lane(goesOn, identifier, answered);
        });
  }

  kj::Own<kj::AsyncCapabilityStream> stream_;
  capnp::TwoPartyClient network_;
  Capnp::Broker::Client broker_;
};

std::unique_ptr<Client> connect(const std::string& address) {
  return std::make_unique<CapnpClient>(address);
}

}  // namespace

const Contender contender{connect};

}  // namespace Benchmark
