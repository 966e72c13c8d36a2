// PeerShare: what one peer makes this process keep, and whether it may go on asking.
//
// Requests that are not answered yet, answers that the peer has not read, and descriptors of its
// that are being closed all count. A peer that is over its share is not read until half of it is
// free again.
#pragma once

#include <cstddef>

namespace Platform {

// Guarded by its connection.
class PeerShare {
 public:
  void requestsBegin(std::size_t count) { underWay_ += count; }
  void requestEnds() { --underWay_; }
  void closingBegins() { ++closing_; }
  void closingEnds() { --closing_; }

  bool isIdle() const { return underWay_ == 0; }

  // `unread` is the load of what waits to be sent, in bytes. To be asked before each receive, and
  // whenever something has become less: the second answers whether a peer that waits may go on.
  bool isOver(std::size_t unread) const { return closing_ != 0 || load(unread) > most; }
  bool hasRoomAgain(std::size_t unread) const { return closing_ == 0 && load(unread) <= most / 2; }

 private:
  static constexpr std::size_t most = 16 << 10;       // bytes
  static constexpr std::size_t requestLoad = 1 << 6;  // bytes, more or less

  std::size_t load(std::size_t unread) const { return unread + underWay_ * requestLoad; }

  std::size_t underWay_ = 0;
  std::size_t closing_ = 0;
};

}  // namespace Platform
