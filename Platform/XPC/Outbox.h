// Outbox: what waits to be sent to one peer.
#pragma once

#include <cstddef>
#include <vector>

#include "Platform/XPC/Encoder.h"

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

  void append(OutgoingFrame&& frame);

  // Sends what the socket takes without blocking, many frames in one call.
  Result flush(int socket) { return lastResult_ = sendAll(socket); }
  Result lastResult() const { return lastResult_; }

  bool isEmpty() const { return sent_ == bytes_.size(); }
  // What waits, in bytes of memory.
  std::size_t load() const {
    return bytes_.size() - sent_ + (endpoints_.size() - endpointsSent_) * sizeof(Waiting);
  }
  // The peer is gone.
  void lose();
  bool hasLost() const { return hasLost_; }
  // Gives back memory that only a busy connection needs.
  void rest();

 private:
  // An endpoint, and where in bytes_ the frame begins that carries it.
  struct Waiting {
    std::size_t start;
    EndpointRef endpoint;
  };

  Result sendAll(int socket);
  void dropSent();
  void clear();
  void keepAtMost(std::size_t bytes);

  std::vector<std::byte> bytes_;
  std::size_t sent_ = 0;
  std::vector<Waiting> endpoints_;  // in order of start
  std::size_t endpointsSent_ = 0;
  std::size_t descriptorsSent_ = 0;  // to this socket
  bool bufferIsSmall_ = false;       // this socket's
  Result lastResult_ = Result::done;
  bool hasLost_ = false;  // something that waited never went
};

}  // namespace Platform
