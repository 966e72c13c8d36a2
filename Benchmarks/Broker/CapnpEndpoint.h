// The Cap'n Proto contender's endpoint: a capability whose only content is the descriptor it
// carries.
#pragma once

#include <capnp/rpc-twoparty.h>

#include "Benchmarks/Broker/CapnpBroker.capnp.h"
#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {

// A reply carries one endpoint, and so does a request.
inline constexpr unsigned descriptorsPerMessage = 1;

class CapnpEndpoint final : public Capnp::Endpoint::Server {
 public:
  explicit CapnpEndpoint(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

  kj::Maybe<int> getFd() override { return descriptor_.get(); }

 private:
  const Descriptor descriptor_;
};

}  // namespace Benchmark
