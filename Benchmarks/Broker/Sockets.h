// The few socket operations that the contenders and the measuring loops share.
#pragma once

#include <string>

#include "Platform/Runtime/UniqueFd.h"

namespace Benchmark {

// Ends the process with `what` and the text of errno.
[[noreturn]] void fail(const std::string& what);

Platform::UniqueFd listenAt(const std::string& path);
Platform::UniqueFd connectTo(const std::string& path);

// What the service manager's protocol hands to a server: the first descriptor after standard error.
Platform::UniqueFd handedSocket();

// A listener without a name, and the endpoint by which others reach it: an O_PATH descriptor.
struct AnonymousListener {
  Platform::UniqueFd socket;
  Platform::UniqueFd endpoint;
};
AnonymousListener makeAnonymousListener();

// The endpoint of a listener that this process keeps for good; made at the first call.
int ownEndpoint();

// A connection to the listener behind an endpoint.
Platform::UniqueFd connectToEndpoint(int endpoint);

// A private copy of a descriptor that somebody else will close.
Platform::UniqueFd duplicate(int descriptor);

// As many descriptors as the system lets this process have.
void raiseDescriptorLimit();

}  // namespace Benchmark
