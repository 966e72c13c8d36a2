// The socket calls of the layer: stream sockets of this machine, close-on-exec from birth.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "Platform/Runtime/UniqueFd.h"
#include "Platform/XPC/ForeignDescriptors.h"

namespace Platform {

enum class Wait { no, yes };

struct Received {
  enum class Outcome {
    data,
    nothingYet,
    ended,  // the peer sends nothing more
  };
  Outcome outcome = Outcome::ended;
  std::size_t bytes = 0;         // in the buffer
  bool lostDescriptors = false;  // there were more, for which this process had no room
  pid_t sender = 0;              // who sent the data, if the socket tells; see `tellSenders`
};

// How long a `receive` that waits does so at most; zero: for ever.
void setReceivePatience(int socket, std::chrono::microseconds patience);

// Reads what is there. Every descriptor is owned, by `descriptors`, before anything else happens.
Received receive(int socket, std::span<std::byte> buffer, ForeignDescriptors& descriptors,
                 Wait wait);

// Whether what is received from now on tells which process sent it. For a connected socket.
void tellSenders(int socket, bool whether);

// What the next receive would bring, without its descriptors; nothing is taken, and nothing waits.
std::span<const std::byte> peek(int socket, std::span<std::byte> buffer);

// Whether the peer, from which nothing more will come, may still read.
bool mayPeerRead(int socket);

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
