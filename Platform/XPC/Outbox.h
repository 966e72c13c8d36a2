// Outbox: what waits to be sent to one peer.
#pragma once

#include <cstddef>
#include <vector>

#include "Platform/XPC/Codec.h"

namespace Platform {

// Not synchronised: guarded by its connection.
class Outbox {
 public:
  enum class Result {
    done,      // nothing waits any more
    blocked,   // the peer has to read first; the socket tells when it has
    tryLater,  // too many of this user's descriptors are under way; nothing tells when to try again
    broken,    // the peer is gone
  };

  void append(OutgoingFrame frame);

  // Sends what the socket takes without blocking, many frames in one call.
  Result flush(int socket);

  bool isEmpty() const { return sent_ == bytes_.size(); }
  std::size_t waitingBytes() const { return bytes_.size() - sent_; }
  void clear();
  // Gives back memory that only a busy connection needs.
  void rest();

 private:
  // A frame that carries descriptors, and where in bytes_ it begins.
  struct Carrier {
    std::size_t start;
    std::vector<EndpointRef> endpoints;
  };

  void dropSent();
  void keepAtMost(std::size_t bytes);

  std::vector<std::byte> bytes_;
  std::size_t sent_ = 0;
  std::vector<Carrier> carriers_;    // in order of start
  std::size_t carriersSent_ = 0;     // whose descriptors have gone out
  std::size_t descriptorsSent_ = 0;  // to this socket
  bool bufferIsSmall_ = false;       // this socket's
};

}  // namespace Platform
