// The socket calls of the layer: stream sockets of this machine, close-on-exec from birth.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

enum class Wait { no, yes };

struct Received {
  enum class Outcome {
    data,
    nothingYet,
    ended,  // the peer is gone, or its descriptors did not all fit into this process
  };
  Outcome outcome = Outcome::ended;
  std::size_t bytes = 0;              // in the buffer
  std::vector<UniqueFd> descriptors;  // with data only
};

// How long a `receive` that waits does so at most; zero: for ever.
void setReceivePatience(int socket, std::chrono::microseconds patience);

// Reads what is there. Every descriptor is owned before anything else happens.
Received receive(int socket, std::span<std::byte> buffer, Wait wait);

enum class ConnectOutcome {
  connected,
  refused,   // nobody listens there
  tryLater,  // the listener has more waiting connections than it takes, or no descriptor is left
             // here
};

struct Connected {
  ConnectOutcome outcome = ConnectOutcome::refused;
  UniqueFd socket;
};

// Never blocks.
Connected connectTo(const std::string& path);

// A socket bound to `path`, not listening yet; invalid when it cannot be had.
UniqueFd bindTo(const std::string& path);

// Whether `path` fits into a socket's address.
bool fitsSocketAddress(const std::string& path);

// As many waiting connections as the system allows. False when the socket cannot listen.
bool listenOn(int socket);

// Whether the process at the other end runs as this process's user.
bool isPeerOfThisUser(int socket);

}  // namespace Platform
