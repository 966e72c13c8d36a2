// Connection: what is behind an NSXPCConnection.
//
// It brings its parts together: the link that is connected now (Link.h) and how to come to another
// (Dialer.h), the calls that wait for answers (PendingCalls.h), and the object that the peer may
// call (ExportedObject.h). One lock guards them; no callback runs under it, and nothing waits under
// it but for memory. Two roles pass from thread to thread:
//
// - Reading. Whoever holds the role (turn_.isReading) receives from the link and cuts frames;
//   nobody else does. A worker takes it for one bounded receive when the socket is ready. A thread
//   in a waiting call takes it until its own answer is there, and hands what else arrives to the
//   queue; the pool then no longer watches the socket for input, so the answer wakes that thread
//   and no other.
// - Delivering. The connection's serial queue carries frames out in order: where they lie, when it
//   has received them itself, and else from inbox_, where they wait for it.
//
// The watch on the socket is good for one event, so while a peer is served no second worker wakes
// for it. The worker that has answered a peer lingers: it waits for the peer's next message in the
// receive call itself for a moment, if another worker is there for everything else. A peer that
// asks again soon is served with two system calls. Then the watch is set again, and the connection
// rests.
//
// Sending happens from any thread, under the lock, without blocking. Workers do not send at once:
// they leave it to the queue, after the task at hand, so that many replies go out in one call.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/XPC/Dialer.h"
#include "Platform/XPC/ExportedObject.h"
#include "Platform/XPC/IncomingRequest.h"
#include "Platform/XPC/Link.h"
#include "Platform/XPC/NSXPCConnectionError.h"
#include "Platform/XPC/PendingCalls.h"

namespace Platform {

// All methods: any thread, unless they say otherwise.
class Connection final : public ReadinessHandler,
                         public RequestSource,
                         public std::enable_shared_from_this<Connection> {
 public:
  using Error = NSXPCConnectionError;
  using Limit = std::optional<std::chrono::milliseconds>;  // none: without end

  struct Handlers {
    std::function<void()> linkLoss;
    std::function<void()> interruption;
    std::function<void()> invalidation;
  };

  // One that connects when it needs to, and one that was accepted.
  explicit Connection(Dialer::Target target);
  explicit Connection(UniqueFd accepted);

  void exportInterface(NSXPCInterface interface);
  void exportObject(std::shared_ptr<NSObject> object);
  void setHandler(std::function<void()> Handlers::*which, std::function<void()> handler);

  // `handle` is what keeps an accepted connection alive from now on.
  void resume(std::shared_ptr<void> handle);
  void invalidate();
  // invalidate for a connection that nobody holds any more: nothing is called, and what waits to be
  // sent still goes as the peer reads.
  void close();

  std::uint64_t nextSerial() { return calls_.nextSerial(); }
  void sendMessage(OutgoingFrame&& frame);
  void sendCall(std::uint64_t serial, OutgoingFrame&& frame, PendingCall call);
  std::optional<Error> waitForCall(std::uint64_t serial, OutgoingFrame&& frame,
                                   const ReplyReader& onReply, Limit limit);
  bool waitUntilSent(std::chrono::milliseconds limit);

  void answer(std::uint64_t link, OutgoingFrame&& frame) override;
  void requestIsDone(std::uint64_t link) override;
  void ready(std::uint32_t events) override;

 private:
  using Lock = std::unique_lock<std::mutex>;
  enum class Phase { created, open, draining, over };
  enum class Ending { peerGone, fault };
  enum class Kind { message, call };
  static constexpr std::chrono::milliseconds retryDelay{10};  // where nothing tells when to go on

  struct Incoming {
    Frame frame;
    Origin origin;
  };

  struct Inbox {
    std::vector<Incoming> waiting;
    std::vector<Incoming> delivering;    // used on queue_, without the lock
    std::atomic<bool> isClosed = false;  // nothing more is delivered
    std::atomic<bool> isDelivering = false;
  };

  // What the next turn on queue_ finds, and what goes on just now.
  struct Turn {
    bool isScheduled = false;
    bool isRunning = false;
    bool isReading = false;
    bool isLingering = false;
    bool isMissed = false;    // a worker came while somebody else was reading
    bool isHeldBack = false;  // the process had no room; a clock comes back
    bool retriesSending = false;
    bool sendsLater = false;  // a clock does, in case a handler takes its time
    bool mayRead = false;     // there may be something to read
    bool mayLinger = false;   // the last turn has delivered something
  };

  struct Ends {
    std::unique_ptr<Handlers> handlers;  // null: none is set
    std::shared_ptr<void> keepAlive;     // of an accepted connection, or of one that only drains
  };

  // These are called with mutex_ held; those that take the lock release it for a while.
  std::optional<Error> submit(OutgoingFrame&& frame, Kind kind);
  ConnectOutcome dial();
  void retryDialing();
  void updateInterest();
  std::uint32_t eventsOfInterest() const;
  void flush();
  void goOnIfRoom();
  void sendSoon();
  void sendLater();
  void scheduleTurn();
  void scheduleTurnAfter(std::chrono::milliseconds delay, bool Turn::*reason);
  bool read(Lock& lock, Wait wait, ReceiveRoom& room, const WaitingCall* reader);
  bool linger(Lock& lock, ReceiveRoom& room);
  void readForWaitingCall(Lock& lock, ReceiveRoom& room, const WaitingCall& call,
                          std::chrono::milliseconds atMost);
  void putAside(std::vector<Frame>& frames);
  void inputHasEnded(bool peerMayRead);
  void endLink(Ending ending);
  void endAll(Error error, bool isFinal);
  void endCalls(Error error, std::function<void()> then);
  void deliverInbox(Lock& lock);
  void endIfAllIsAnswered();
  std::shared_ptr<void> endDraining();
  // For what is to be done later, also while a handler takes its time on queue_.
  static const dispatch_queue_t& clockQueue();
  bool isLink(std::uint64_t number) const { return link_ && link_->origin().link == number; }

  // These run on queue_, without the lock.
  void turn();
  void deliverInbox();
  void deliverAll(std::vector<Frame>& frames, const Origin& origin);
  bool deliverOrEnd(Frame& frame, const Origin& origin);
  bool deliver(Frame& frame, const Origin& origin);
  bool deliverRequest(Frame& frame, const Origin& origin, Decoder& decoder, bool expectsAnswer);
  bool deliverAnswer(Frame& frame, const Origin& origin, Decoder& decoder, bool isReply);
  void closeUnclaimed(Frame& frame, std::uint64_t link);
  PendingCalls::Blocks endedCalls(std::uint64_t end);
  void announceEnd(bool isFinal);

  const dispatch_queue_t queue_ = dispatch_queue_create("NSXPCConnection", DISPATCH_QUEUE_SERIAL);
  ExportedObject exported_;

  std::mutex mutex_;
  // Protected by mutex_:
  Phase phase_ = Phase::created;
  Dialer dialer_;
  std::shared_ptr<Link> link_;
  PendingCalls calls_;
  Inbox inbox_;
  Turn turn_;
  Ends ends_;
};

}  // namespace Platform
