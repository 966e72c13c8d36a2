@0xc8b6dbf2d5b2a1e7;
# The Cap'n Proto contender's interface: an endpoint is a capability with a descriptor attached.

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("Benchmark::Capnp");

interface Endpoint {}

interface Broker {
  retrieve @0 (identifier :Text) -> (endpoint :Endpoint);
  # The endpoint is null when there is none.

  register @1 (identifier :Text, endpoint :Endpoint) -> ();
}
