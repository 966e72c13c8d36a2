// Who listens behind an endpoint, as the kernel tells it. Looking does not connect: nothing that
// waits for connections notices.
//
// A datagram socket that is to connect to a stream socket's inode is told that the kinds differ, or
// that nobody has the inode bound any more: which tells the living from the gone. The kernel's
// table of sockets (sock_diag(7)) gives for each the inode that it is bound to and how many
// connections wait, and /proc which process has it open. That table is one of a network namespace:
// of what listens in another one, only that it lives can be told.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"

namespace Gantrel_Sync_Helper {

// Of its socket, as long as the endpoint lives.
std::string pathOf(const Platform::NSXPCListenerEndpoint& endpoint);

// Whether anybody listens there.
bool isServed(const Platform::NSXPCListenerEndpoint& endpoint);

struct Process {
  pid_t number;
  std::string name;  // as the kernel has it: any bytes
  std::optional<Platform::Text> bundleIdentifier;
};

enum class ListenerState {
  served,
  notAnswering,  // as many connections wait as may
  gone,
};

struct Listener {
  ListenerState state = ListenerState::gone;
  std::optional<Process> process;  // none when this user may not see it
};

// All of them, as they are when this is made. On one thread.
class Listeners {
 public:
  Listeners();

  // Of several processes that share a socket, the first started counts.
  Listener behind(const Platform::NSXPCListenerEndpoint& endpoint) const;

 private:
  using Inode = std::pair<std::uint32_t, std::uint32_t>;  // with its device, as in the table
  struct Socket {
    bool isFull;
    pid_t owner;  // 0 when it may not be seen
  };
  std::map<Inode, Socket> sockets_;  // by what they are bound to
};

}  // namespace Gantrel_Sync_Helper
