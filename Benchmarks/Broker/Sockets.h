// The few socket operations that the contenders and the measuring loops share.
#pragma once

#include <string>

#include "Benchmarks/Broker/Descriptor.h"

namespace Benchmark {

// Ends the process with `what` and the text of errno.
[[noreturn]] void fail(const std::string& what);

Descriptor listenAt(const std::string& path);
Descriptor connectTo(const std::string& path);

// What the service manager's protocol hands to a server: the first descriptor after standard error.
Descriptor handedSocket();

// A listener without a name, and the endpoint by which others reach it: an O_PATH descriptor.
struct AnonymousListener {
  Descriptor socket;
  Descriptor endpoint;
};
AnonymousListener makeAnonymousListener();

// The endpoint of a listener that this process keeps for good; made at the first call.
int ownEndpoint();

// A connection to the listener behind an endpoint.
Descriptor connectToEndpoint(int endpoint);

// A private copy of a descriptor that somebody else will close.
Descriptor duplicate(int descriptor);

// As many descriptors as the system lets this process have.
void raiseDescriptorLimit();

}  // namespace Benchmark
