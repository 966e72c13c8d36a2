// Anonymous sockets: listening sockets without a name, which are reached by a descriptor instead.
//
// Such a socket is bound to a name in the runtime directory, the name is opened with O_PATH, and
// removed. A process that is killed in between leaves the name behind. Whoever makes a socket
// therefore holds a shared lock on the directory meanwhile: who gets it exclusively knows that
// every such name in it is a leftover.
#pragma once

#include <memory>
#include <optional>

#include "Platform/Runtime/UniqueFd.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"

namespace Platform {

struct AnonymousSocket {
  std::shared_ptr<const UniqueFd> socket;
  std::shared_ptr<NSXPCListenerEndpoint> endpoint;
};

// None without a runtime directory, or when the system has no descriptor or room. Waits while
// leftovers are removed, a second at most. Any thread.
std::optional<AnonymousSocket> makeAnonymousSocket();

// Removes the names that killed processes have left, unless somebody is making a socket just now.
// Never waits. Any thread.
void removeLeftOverSocketNames();

}  // namespace Platform
