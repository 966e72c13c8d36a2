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

#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"

namespace Gantrel_Sync_Helper {

// What an endpoint shows of itself. A value: the endpoint need not be kept.
struct Sight {
  dev_t device = 0;
  ino_t inode = 0;
  bool isBound = false;  // the listener lives

  bool isOfSameListener(const Sight& other) const {
    return device == other.device && inode == other.inode;
  }
};

Sight look(const Platform::NSXPCListenerEndpoint& endpoint);

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

// In the order of the sights. Of several processes that share a socket, the first started counts.
std::vector<Listener> listenersBehind(const std::vector<Sight>& sights);

}  // namespace Gantrel_Sync_Helper
