// Link: one connected socket, with what is half received from it and what waits to be sent on it.
//
// A named connection may have several links, one after the other; every other connection has one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Platform/XPC/FrameReader.h"
#include "Platform/XPC/Outbox.h"
#include "Platform/XPC/PeerShare.h"
#include "Platform/XPC/Socket.h"

namespace Platform {

// Where a frame came from.
struct Origin {
  std::uint64_t link = 0;     // its number
  std::uint64_t process = 0;  // see NSXPCConnection::answeringProcess
};

// What one receive led to. The frames come apart.
struct Reception {
  enum class Outcome {
    data,
    nothingYet,
    heldBack,  // the process has no room for what comes; nothing tells when to try again
    ended,     // the peer sends nothing more
    fault,     // what came is not of the wire's format
  };
  Outcome outcome;
  bool isFull = false;  // more is there, most likely
  pid_t sender = 0;     // once a link, if it was asked for
};

// What a thread receives with: the buffer, and the frames that it lends their payloads to. A
// handler that waits for an answer meanwhile has another. On one thread, as a local variable.
class ReceiveRoom {
 public:
  ReceiveRoom();
  ~ReceiveRoom();
  ReceiveRoom(const ReceiveRoom&) = delete;
  ReceiveRoom& operator=(const ReceiveRoom&) = delete;

  std::span<std::byte> buffer();
  std::vector<Frame>& frames();

 private:
  struct Content;
  std::unique_ptr<Content> content_;
};

// Guarded by its connection's lock, but for `receive`, `waitForSocket` and `peerMayRead`, which
// whoever holds the connection's reading role calls without it.
class Link {
 public:
  // `number` tells the links of a connection apart.
  Link(std::uint64_t number, UniqueFd socket)
      : origin_{.link = number}, socket_(std::move(socket)) {}

  // Of what comes in. The process is set by the connection.
  const Origin& origin() const { return origin_; }
  void setProcess(std::uint64_t process) { origin_.process = process; }

  // Has the next reception tell which process sent it.
  void askForSender();

  // Receives once; the frames that this completes are in the room. `mayHoldBack` says whether it
  // may be put off for want of room in the process.
  Reception receive(Wait wait, bool mayHoldBack, ReceiveRoom& room);
  // Waits for one of the events, as of poll(2); a negative time is without end.
  void waitForSocket(short events, std::chrono::milliseconds atMost);
  bool peerMayRead() const { return mayPeerRead(socket_.get()); }

  // How long a receive that waits does so at most; zero: for ever.
  void setPatience(std::chrono::microseconds patience);

  // Ends it for both sides, and wakes a thread that reads.
  void shutDown();
  // Lets the peer know that nothing more is read.
  void stopReceiving();

  void append(OutgoingFrame&& frame) { outbox_.append(std::move(frame)); }
  // Sends what the socket takes.
  Outbox::Result flush() { return outbox_.flush(socket_.get()); }
  Outbox::Result lastFlush() const { return outbox_.lastResult(); }
  bool hasUnsent() const { return !outbox_.isEmpty(); }
  void dropUnsent() { outbox_.lose(); }
  bool hasLostUnsent() const { return outbox_.hasLost(); }
  void rest() { outbox_.rest(); }

  // Watches the socket for `events`, once; the handler's connection is told of one. There is no
  // watch afterwards when the system has none to give.
  void watchFor(std::uint32_t events, const std::weak_ptr<ReadinessHandler>& handler);
  void watchHasTold() { watched_.events = 0; }
  bool hasWatch() const { return static_cast<bool>(watched_.watch); }
  bool isWatched() const { return watched_.events != 0; }
  bool isWatchedFor(std::uint32_t events) const { return watched_.events == events; }

  bool isOverShare() const { return share.isOver(outbox_.load()); }
  bool hasRoomAgain() const { return share.hasRoomAgain(outbox_.load()); }

  PeerShare share;
  bool isReadByPool = false;  // rather than by waiting calls
  // How far it has come: what its peer may still do.
  enum class State {
    open,
    paused,   // over its share: not read for now
    hungUp,   // going: to be read to its end, which is near
    halfShut  // nothing more will come, but answers are still read
  } state = State::open;

 private:
  Origin origin_;
  const UniqueFd socket_;
  FrameReader reader_;
  Outbox outbox_;
  struct {
    Watch watch;
    std::uint32_t events = 0;  // that it waits for; none once it has told of one
  } watched_;                  // after socket_, so that it ends before
  std::chrono::microseconds patience_{0};
  bool asksForSender_ = false;
};

}  // namespace Platform
