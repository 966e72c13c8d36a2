// Connection: what is behind an NSXPCConnection.
//
// One lock guards a connection's state; no callback runs under it, and nothing waits under it but
// for memory, and for the closing of what an ended connection had received. Two roles pass from
// thread to thread:
//
// - Reading. Whoever holds the role (reading_) receives from the socket and cuts frames; nobody
//   else does. A worker takes it for one bounded receive when the socket is ready. A thread in a
//   waiting call takes it until its own answer is there, and hands what else arrives to the queue;
//   the pool then no longer watches the socket for input, so the answer wakes that thread and no
//   other.
// - Delivering. Frames wait in inbox_ for the connection's serial queue, which carries them out in
//   order.
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
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <variant>
#include <vector>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/Text.h"
#include "Platform/XPC/FrameReader.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/Outbox.h"
#include "Platform/XPC/Socket.h"

namespace Platform {

// All methods: any thread, unless they say otherwise.
class Connection final : public ReadinessHandler, public std::enable_shared_from_this<Connection> {
 public:
  struct NamedTarget {
    Text service;
  };
  struct EndpointTarget {
    EndpointRef endpoint;
  };
  struct Accepted {};
  using Target = std::variant<NamedTarget, EndpointTarget, Accepted>;
  using Error = NSXPCConnectionError;
  using DecodeReply = std::function<void(Decoder&)>;

  // `socket` is the accepted one, or invalid: the others connect when they need to.
  Connection(Target target, UniqueFd socket);

  void exportInterface(NSXPCInterface interface);
  void exportObject(std::shared_ptr<NSObject> object);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);

  // `handle` is what keeps an accepted connection alive from now on.
  void resume(std::shared_ptr<NSXPCConnection> handle);
  void invalidate();
  void close();  // invalidate for a connection that nobody holds any more: nothing is called

  std::uint64_t nextSerial() { return ++lastSerial_; }
  void sendMessage(OutgoingFrame frame);
  void sendCall(std::uint64_t serial, OutgoingFrame frame, DecodeReply onReply,
                SharedErrorHandler onError);
  std::optional<Error> waitForCall(std::uint64_t serial, OutgoingFrame frame,
                                   const DecodeReply& onReply);
  // Sends an answer, if the link on which the question came is still there.
  void sendAnswer(std::uint64_t linkNumber, OutgoingFrame frame);

  void ready(std::uint32_t events) override;

 private:
  using Lock = std::unique_lock<std::mutex>;
  enum class Phase { created, open, over };
  enum class Ending { peerGone, fault };

  // One connected socket. A named connection may have several, one after the other.
  struct Link {
    Link(std::uint64_t linkNumber, UniqueFd connected)
        : number(linkNumber), socket(std::move(connected)) {}
    const std::uint64_t number;
    const UniqueFd socket;
    FrameReader frames;  // used by whoever holds the reading role
    Watch watch;         // after socket, so that it ends before
    std::uint32_t armedFor =
        0;                      // the events that the watch waits for; none once it has told of one
    bool isReadByPool = false;  // rather than by waiting calls
    bool isImpatient = false;   // a receive that waits ends by itself after a moment
  };

  // A call in a waiting form: lives on the stack of the thread that waits.
  struct WaitingCall {
    std::condition_variable wake;
    std::optional<Frame> answer;
    std::uint64_t linkNumber = 0;  // on which the answer came
    std::optional<Error> error;
    bool isDone() const { return answer || error; }
  };

  struct PendingCall {
    DecodeReply onReply;
    SharedErrorHandler onError;
    WaitingCall* waiting = nullptr;
  };

  struct Incoming {
    Frame frame;
    std::uint64_t linkNumber;
  };

  // These are called with mutex_ held; those that take the lock release it for a while.
  bool isNamed() const { return std::holds_alternative<NamedTarget>(target_); }
  std::optional<Error> submit(OutgoingFrame frame);
  ConnectOutcome connect();
  bool adoptLink(UniqueFd socket);
  void updateInterest();
  void flush();
  void sendSoon();
  void scheduleTurn();
  std::uint32_t eventsOfInterest();
  bool read(Lock& lock, Wait wait);
  bool linger(Lock& lock);
  void rest();
  void readForWaitingCall(Lock& lock);
  void take(Frame frame, std::uint64_t linkNumber);
  void endLink(Ending ending);
  void endAll(Error error, bool isFinal);

  // These run on queue_, without the lock.
  void turn();
  void retryConnect();
  void deliverInbox();
  bool deliverOrEnd(Incoming& incoming);
  bool deliver(Incoming& incoming);
  bool deliverCall(Incoming& incoming, Decoder& decoder, bool expectsAnswer);
  bool deliverAnswer(Incoming& incoming, bool isReply);
  void announceEnd(bool isFinal);

  const Target target_;
  const dispatch_queue_t queue_;
  std::vector<Incoming> delivering_;  // on queue_: what was in inbox_
  std::atomic<std::uint64_t> lastSerial_ = 0;
  std::atomic<bool> isSilent_ = false;  // nothing more is delivered

  std::mutex mutex_;
  // Protected by mutex_:
  Phase phase_ = Phase::created;
  std::shared_ptr<Link> link_;
  std::uint64_t lastLinkNumber_ = 0;
  Outbox outbox_;
  std::vector<Incoming> inbox_;
  std::unordered_map<std::uint64_t, PendingCall> calls_;
  std::vector<WaitingCall*>
      waiting_;  // those of calls_ that are in a waiting form, in order of arrival
  bool reading_ = false;
  bool missedTurn_ = false;  // a worker came while somebody else was reading
  bool turnScheduled_ = false;
  bool inTurn_ = false;
  bool mayRead_ = false;    // there may be something to read: for the next turn
  bool mayLinger_ = false;  // the last turn has delivered something: for the next turn
  bool isLingering_ = false;
  bool hungUp_ = false;  // the socket said that its end is near: read on until it comes
  bool writeBlocked_ = false;
  bool retryScheduled_ = false;
  bool paused_ = false;  // requests are not read until the peer has read its replies
  bool connecting_ = false;
  NSXPCInterface exportedInterface_;
  std::shared_ptr<NSObject> exportedObject_;
  void* implementer_ = nullptr;  // exportedObject_ as what exportedInterface_ calls
  std::function<void()> interruptionHandler_;
  std::function<void()> invalidationHandler_;
  std::shared_ptr<NSXPCConnection> keepAlive_;  // of an accepted connection, until its peer goes
};

}  // namespace Platform
