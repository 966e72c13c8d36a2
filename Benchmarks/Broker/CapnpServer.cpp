// The Cap'n Proto contender's server: two-party RPC over the socket handed to it, one event loop.
#include <kj/async-io.h>

#include <string>
#include <string_view>
#include <unordered_map>

#include "Benchmarks/Broker/CapnpEndpoint.h"

using namespace Benchmark;

namespace {

class BrokerServer final : public Capnp::Broker::Server {
 public:
  kj::Promise<void> retrieve(RetrieveContext context) override {
    const auto identifier = context.getParams().getIdentifier();
    const auto found = endpoints_.find(std::string(identifier.begin(), identifier.size()));
    if (found != endpoints_.end()) context.getResults().setEndpoint(found->second);
    return kj::READY_NOW;
  }

  // Keeps the descriptor and not the client's capability, which would end with its connection.
  kj::Promise<void> register_(RegisterContext context) override {
    Capnp::Endpoint::Client endpoint = context.getParams().getEndpoint();
    return endpoint.getFd().then([this, context](kj::Maybe<int> descriptor) mutable {
      const auto identifier = context.getParams().getIdentifier();
      KJ_IF_MAYBE (fd, descriptor) {
        endpoints_.insert_or_assign(
            std::string(identifier.begin(), identifier.size()),
            Capnp::Endpoint::Client(kj::heap<CapnpEndpoint>(duplicate(*fd))));
      }
    });
  }

 private:
  std::unordered_map<std::string, Capnp::Endpoint::Client> endpoints_;
};

}  // namespace

int main() {
  raiseDescriptorLimit();
  kj::AsyncIoContext io = kj::setupAsyncIo();
  auto listener = io.lowLevelProvider->wrapListenSocketFd(
      handedSocket().release(), kj::LowLevelAsyncIoProvider::TAKE_OWNERSHIP);
  capnp::TwoPartyServer server(kj::heap<BrokerServer>());
  server.listenCapStreamReceiver(*listener, descriptorsPerMessage).wait(io.waitScope);
}
