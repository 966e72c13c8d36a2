#include "Platform/XPC/Connection.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "Platform/Runtime/ClosingTogether.h"
#include "Platform/Runtime/Stop.h"
#include "Platform/XPC/Answer.h"
#include "Platform/XPC/NamedService.h"

namespace Platform {
namespace {

constexpr std::size_t bytesPerTurn =
    64 << 10;  // what one peer may hand in before others get their turn
constexpr std::size_t mostUnreadReplies =
    256 << 10;  // bytes; then the peer has to read before it may ask
constexpr auto retryDelay = std::chrono::milliseconds(10);
constexpr auto lingerTime = std::chrono::milliseconds(10);

// What a thread receives with, one message after the other.
struct Reception {
  // Not cleared, so a thread that only ever receives little touches little of it.
  const std::unique_ptr<std::byte[]> buffer{new std::byte[bytesPerTurn]};
  std::vector<Frame> frames;  // empty but during a receive

  static Reception& ofThisThread() {
    thread_local Reception reception;
    return reception;
  }
};

struct ConnectVisitor {
  Connected operator()(const Connection::NamedTarget& target) const {
    const auto path = namedServicePath(target.service);
    return path ? connectTo(*path) : Connected{};
  }
  Connected operator()(const Connection::EndpointTarget& target) const {
    return connectTo("/proc/self/fd/" + std::to_string(target.endpoint->descriptor()));
  }
  Connected operator()(const Connection::Accepted&) const { return {}; }
};

}  // namespace

Connection::Connection(Target target, UniqueFd socket)
    : target_(std::move(target)),
      queue_(dispatch_queue_create("NSXPCConnection", DISPATCH_QUEUE_SERIAL)) {
  if (socket.isValid()) link_ = std::make_shared<Link>(++lastLinkNumber_, std::move(socket));
}

void Connection::exportInterface(NSXPCInterface interface) {
  const Lock lock(mutex_);
  exportedInterface_ = interface;
}

void Connection::exportObject(std::shared_ptr<NSObject> object) {
  const Lock lock(mutex_);
  exportedObject_ = std::move(object);
}

void Connection::setInterruptionHandler(std::function<void()> handler) {
  const Lock lock(mutex_);
  interruptionHandler_ = std::move(handler);
}

void Connection::setInvalidationHandler(std::function<void()> handler) {
  const Lock lock(mutex_);
  invalidationHandler_ = std::move(handler);
}

void Connection::resume(std::shared_ptr<NSXPCConnection> handle) {
  const Lock lock(mutex_);
  if (phase_ != Phase::created) return;
  if (exportedInterface_) implementer_ = exportedInterface_.implementer(exportedObject_.get());
  // An object without an interface, or one that does not implement it, is a fault of the program.
  if ((exportedInterface_ || exportedObject_) && !implementer_) stopProcess(ExitStatus::software);
  phase_ = Phase::open;
  if (!link_) return;
  keepAlive_ = std::move(handle);
  updateInterest();
  if (!link_->watch) endAll(Error::invalid, true);
}

void Connection::invalidate() {
  const Lock lock(mutex_);
  if (phase_ == Phase::over) return;
  flush();
  isSilent_ = true;
  inbox_.clear();
  endAll(Error::invalid, true);
}

void Connection::close() {
  // What goes is released after the lock: it may lead back here.
  std::vector<Incoming> inbox;
  std::unordered_map<std::uint64_t, PendingCall> calls;
  std::function<void()> interruption;
  std::function<void()> invalidation;
  const Lock lock(mutex_);
  flush();
  isSilent_ = true;
  phase_ = Phase::over;
  link_.reset();
  inbox.swap(inbox_);
  calls.swap(calls_);
  interruption.swap(interruptionHandler_);
  invalidation.swap(invalidationHandler_);
  // One of its methods may be under way, and may be what led here.
  if (exportedObject_) queue_->async([exported = std::move(exportedObject_)] {});
}

// Sending

std::optional<Connection::Error> Connection::submit(OutgoingFrame frame) {
  if (phase_ != Phase::open) return Error::invalid;
  if (!frame.isSendable()) return Error::refused;
  if (!link_ && !connecting_ && connect() == ConnectOutcome::refused) {
    if (isNamed()) return Error::interrupted;
    endAll(Error::invalid, true);
    return Error::invalid;
  }
  outbox_.append(std::move(frame));
  return std::nullopt;
}

ConnectOutcome Connection::connect() {
  Connected connected = std::visit(ConnectVisitor(), target_);
  if (connected.outcome == ConnectOutcome::connected && !adoptLink(std::move(connected.socket))) {
    connected.outcome = ConnectOutcome::tryLater;
  }
  connecting_ = connected.outcome == ConnectOutcome::tryLater;
  if (connecting_) {
    WorkerPool::shared().after(retryDelay, queue_,
                               [self = shared_from_this()] { self->retryConnect(); });
  }
  return connected.outcome;
}

bool Connection::adoptLink(UniqueFd socket) {
  link_ = std::make_shared<Link>(++lastLinkNumber_, std::move(socket));
  updateInterest();
  if (link_->watch) return true;
  link_.reset();
  return false;
}

void Connection::retryConnect() {
  const Lock lock(mutex_);
  if (phase_ != Phase::open || link_) return;
  if (connect() == ConnectOutcome::refused)
    endAll(isNamed() ? Error::interrupted : Error::invalid, !isNamed());
  flush();
  for (WaitingCall* call : waiting_) call->wake.notify_one();
}

// The end of the socket is always of interest; input only when somebody is to be told of it who
// does not read for himself.
std::uint32_t Connection::eventsOfInterest() {
  const bool hasListener = implementer_ || calls_.size() > waiting_.size();
  // Once of interest, input stays so until a waiting call takes over: changing it costs a call.
  link_->isReadByPool = waiting_.empty() && (hasListener || link_->isReadByPool);
  std::uint32_t events = EPOLLRDHUP | EPOLLONESHOT;
  if (link_->isReadByPool && !paused_) events |= EPOLLIN;
  if (writeBlocked_) events |= EPOLLOUT;
  return events;
}

void Connection::updateInterest() {
  if (!link_ || phase_ != Phase::open) return;
  // A turn does this when it ends, and so does a waiting call. Only what blocks sending cannot
  // wait.
  const bool isLookedAfter =
      turnScheduled_ || inTurn_ || (!waiting_.empty() && link_->armedFor == 0);
  if (link_->watch && isLookedAfter && !writeBlocked_) return;
  const std::uint32_t events = eventsOfInterest();
  if (events == link_->armedFor) return;
  link_->armedFor = events;
  if (link_->watch) {
    link_->watch.setEvents(events);
  } else {
    link_->watch = WorkerPool::shared().watch(link_->socket.get(), events, weak_from_this());
  }
}

void Connection::flush() {
  if (!link_ || outbox_.isEmpty()) return;
  const Outbox::Result result = outbox_.flush(link_->socket.get());
  writeBlocked_ = result == Outbox::Result::blocked;
  if (result == Outbox::Result::tryLater && !std::exchange(retryScheduled_, true)) {
    WorkerPool::shared().after(retryDelay, queue_, [self = shared_from_this()] {
      const Lock lock(self->mutex_);
      self->retryScheduled_ = false;
      self->flush();
    });
  }
  if (result == Outbox::Result::broken) {
    // What the peer sent before it went is still to be read, and then the end.
    outbox_.clear();
    hungUp_ = true;
    mayRead_ = true;
    scheduleTurn();
  }
  if (paused_ && outbox_.waitingBytes() < mostUnreadReplies / 2) {
    paused_ = false;
    mayRead_ = true;
    scheduleTurn();
  }
  updateInterest();
}

void Connection::sendSoon() {
  if (WorkerPool::isWorker() && !isLingering_) {
    scheduleTurn();
  } else {
    flush();
  }
}

void Connection::sendMessage(OutgoingFrame frame) {
  const Lock lock(mutex_);
  if (!submit(std::move(frame))) sendSoon();
}

void Connection::sendCall(std::uint64_t serial, OutgoingFrame frame, DecodeReply onReply,
                          SharedErrorHandler onError) {
  const Lock lock(mutex_);
  if (const auto error = submit(std::move(frame))) {
    if (onError) queue_->async([onError, error] { (*onError)(*error); });
    return;
  }
  calls_.emplace(serial, PendingCall{std::move(onReply), std::move(onError)});
  updateInterest();
  sendSoon();
}

void Connection::sendAnswer(std::uint64_t linkNumber, OutgoingFrame frame) {
  const Lock lock(mutex_);
  if (!link_ || link_->number != linkNumber) return;
  outbox_.append(std::move(frame));
  sendSoon();
}

// Waiting

std::optional<Connection::Error> Connection::waitForCall(std::uint64_t serial, OutgoingFrame frame,
                                                         const DecodeReply& onReply) {
  WaitingCall call;
  ClosingTogether::closeNow();
  {
    const WorkerPool::BlockingRegion region;
    Lock lock(mutex_);
    if (const auto error = submit(std::move(frame))) return error;
    calls_.emplace(serial, PendingCall{.onReply = {}, .onError = {}, .waiting = &call});
    waiting_.push_back(&call);
    updateInterest();
    flush();
    while (!call.isDone()) {
      if (reading_ || !link_) {
        call.wake.wait(lock);
      } else {
        readForWaitingCall(lock);
      }
    }
    std::erase(waiting_, &call);
    if (!waiting_.empty()) {
      waiting_.front()->wake.notify_one();  // somebody has to read
    } else {
      updateInterest();
      if (std::exchange(missedTurn_, false)) {
        mayRead_ = true;
        scheduleTurn();
      }
    }
  }
  if (call.error) return call.error;
  Decoder decoder(*call.answer, Descriptors::taken);
  const std::size_t count = decoder.array();
  const bool isReply = decoder.unsignedInteger() == static_cast<std::uint64_t>(Wire::Kind::reply);
  decoder.unsignedInteger();
  if (count != (isReply ? 3 : 2)) decoder.malformed();
  if (isReply && decoder.isSound()) onReply(decoder);
  if (decoder.isMalformed()) {
    const Lock lock(mutex_);
    if (link_ && link_->number == call.linkNumber) endLink(Ending::fault);
  }
  if (decoder.isSound() && decoder.isAtEnd()) {
    return isReply ? std::nullopt : std::optional(Error::refused);
  }
  return Error::replyInvalid;
}

void Connection::readForWaitingCall(Lock& lock) {
  if (outbox_.isEmpty()) {
    if (std::exchange(link_->isImpatient, false)) setReceivePatience(link_->socket.get(), {});
    read(lock, Wait::yes);
  } else {
    const std::shared_ptr<Link> link = link_;
    pollfd socket{link->socket.get(),
                  static_cast<short>(retryScheduled_ ? POLLIN : POLLIN | POLLOUT), 0};
    const auto patience = retryScheduled_ ? static_cast<int>(retryDelay.count()) : -1;
    reading_ = true;
    lock.unlock();
    ::poll(&socket, 1, patience);
    lock.lock();
    reading_ = false;
    if (link_ != link) return;
    flush();
    read(lock, Wait::no);
  }
  if (!inbox_.empty()) scheduleTurn();
}

// Reading

void Connection::ready(std::uint32_t events) {
  const Lock lock(mutex_);
  if (!link_) return;
  link_->armedFor = 0;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) hungUp_ = true;
  mayRead_ = true;
  // Not left to the queue, where a handler may be taking its time.
  if (writeBlocked_) flush();
  scheduleTurn();
}

void Connection::scheduleTurn() {
  if (std::exchange(turnScheduled_, true)) return;
  queue_->async([self = shared_from_this()] { self->turn(); });
}

void Connection::turn() {
  bool hasRead = false;
  {
    Lock lock(mutex_);
    turnScheduled_ = false;
    inTurn_ = true;
    flush();
    const bool mayLinger = std::exchange(mayLinger_, false);
    if (link_ && phase_ == Phase::open) {
      hasRead = std::exchange(mayRead_, false) ? read(lock, Wait::no) : mayLinger && linger(lock);
      mayLinger_ = hasRead && !inbox_.empty();
    }
  }
  deliverInbox();
  const Lock lock(mutex_);
  inTurn_ = false;
  // What was delivered may have left tasks on other queues, whose answers the next turn sends.
  if (hasRead) {
    scheduleTurn();
  } else {
    rest();
  }
  updateInterest();
}

// A connection that is served keeps its buffers from turn to turn; one at rest costs little.
void Connection::rest() {
  delivering_.shrink_to_fit();
  inbox_.shrink_to_fit();
  outbox_.rest();
}

bool Connection::linger(Lock& lock) {
  if (reading_ || !waiting_.empty() || !outbox_.isEmpty()) return false;
  if (!WorkerPool::shared().canSpareWorker()) return false;
  if (!std::exchange(link_->isImpatient, true)) {
    setReceivePatience(link_->socket.get(), lingerTime);
  }
  const WorkerPool::BlockingRegion region;
  isLingering_ = true;
  const bool hasRead = read(lock, Wait::yes);
  isLingering_ = false;
  return hasRead;
}

// One receive. Says whether it brought anything.
bool Connection::read(Lock& lock, Wait wait) {
  if (reading_) {
    missedTurn_ = true;
    return false;
  }
  // While an answer of our own is awaited reading goes on, or two peers in backlog would starve.
  // Of a peer that is going, no more can come than is there.
  if (outbox_.waitingBytes() > mostUnreadReplies && calls_.empty() && !hungUp_) {
    paused_ = true;
    return false;
  }
  reading_ = true;
  const std::shared_ptr<Link> link = link_;
  lock.unlock();
  Reception& reception = Reception::ofThisThread();
  const std::span buffer(reception.buffer.get(), bytesPerTurn);
  Received received = receive(link->socket.get(), buffer, wait);
  const bool isFull = received.bytes == buffer.size();
  bool isSound = link->frames.feed(buffer.first(received.bytes), std::move(received.descriptors),
                                   reception.frames);
  // All that was sent with these descriptors is here, so a frame must have claimed them.
  if (!isFull && link->frames.hasUndeclaredDescriptors()) isSound = false;
  lock.lock();
  reading_ = false;
  // A call that began to wait meanwhile has left the reading to this thread, and takes it over now,
  // whatever came of it.
  if (!waiting_.empty()) waiting_.front()->wake.notify_one();
  if (link_ != link) {
    reception.frames.clear();
    return false;
  }
  for (Frame& frame : reception.frames) take(std::move(frame), link->number);
  reception.frames.clear();
  if (received.outcome == Received::Outcome::ended || !isSound) {
    endLink(isSound ? Ending::peerGone : Ending::fault);
    return false;
  }
  if (received.outcome == Received::Outcome::nothingYet) {
    hungUp_ = false;
    return false;
  }
  // More is there for sure when the buffer was filled, or when the peer's end has been announced.
  if (wait == Wait::no) mayRead_ = isFull || hungUp_;
  return true;
}

void Connection::take(Frame frame, std::uint64_t linkNumber) {
  if (!waiting_.empty()) {
    Decoder decoder(frame);
    decoder.array();
    const auto kind = static_cast<Wire::Kind>(decoder.unsignedInteger());
    const std::uint64_t serial = decoder.unsignedInteger();
    if (decoder.isSound() && (kind == Wire::Kind::reply || kind == Wire::Kind::refusal)) {
      const auto found = calls_.find(serial);
      if (found != calls_.end() && found->second.waiting) {
        found->second.waiting->answer = std::move(frame);
        found->second.waiting->linkNumber = linkNumber;
        found->second.waiting->wake.notify_one();
        calls_.erase(found);
        return;
      }
    }
  }
  inbox_.push_back({std::move(frame), linkNumber});
}

// Delivering

void Connection::deliverInbox() {
  ClosingTogether dropped;
  for (bool goesOn = true; goesOn;) {
    {
      const Lock lock(mutex_);
      if (inbox_.empty()) return;
      delivering_.swap(inbox_);
    }
    goesOn = std::all_of(delivering_.begin(), delivering_.end(),
                         [this](Incoming& incoming) { return deliverOrEnd(incoming); });
    delivering_.clear();
  }
}

// False when nothing that came with it or after it is to be delivered.
bool Connection::deliverOrEnd(Incoming& incoming) {
  if (isSilent_) return false;
  if (deliver(incoming)) return true;
  const Lock lock(mutex_);
  if (link_ && link_->number == incoming.linkNumber) endLink(Ending::fault);
  return false;
}

// False when the frame is malformed.
bool Connection::deliver(Incoming& incoming) {
  Decoder decoder(incoming.frame);
  const std::size_t count = decoder.array();
  const std::uint64_t kind = decoder.unsignedInteger();
  if (!decoder.isSound()) return false;
  switch (static_cast<Wire::Kind>(kind)) {
    case Wire::Kind::message:
      return count == 3 && deliverCall(incoming, decoder, false);
    case Wire::Kind::call:
      return count == 4 && deliverCall(incoming, decoder, true);
    case Wire::Kind::reply:
      return count == 3 && deliverAnswer(incoming, true);
    case Wire::Kind::refusal:
      return count == 2 && deliverAnswer(incoming, false);
  }
  return false;
}

bool Connection::deliverCall(Incoming& incoming, Decoder& decoder, bool expectsAnswer) {
  const std::uint64_t serial = expectsAnswer ? decoder.unsignedInteger() : 0;
  const std::string_view selector = decoder.text();
  if (!decoder.isSound()) return false;
  const auto answer = std::make_shared<Answer>(
      serial, expectsAnswer ? weak_from_this() : std::weak_ptr<Connection>(), incoming.linkNumber);
  // Set before `resume`, and cleared by tasks of this queue.
  if (implementer_ && exportedInterface_.dispatch(implementer_, selector, decoder, answer)) {
    if (decoder.isSound()) return true;
  }
  if (decoder.isMalformed()) return false;
  // It is not for us: then it must be well-formed all the same.
  Decoder whole(incoming.frame);
  whole.skipMessage();
  return whole.isSound() && whole.isAtEnd();
}

bool Connection::deliverAnswer(Incoming& incoming, bool isReply) {
  Decoder decoder(incoming.frame, Descriptors::taken);
  decoder.array();
  decoder.unsignedInteger();
  const std::uint64_t serial = decoder.unsignedInteger();
  if (!decoder.isSound()) return false;
  PendingCall call;
  {
    const Lock lock(mutex_);
    const auto found = calls_.find(serial);
    // An answer to what was never asked, or was asked before an interruption, is nothing to
    // anybody.
    if (found == calls_.end() || found->second.waiting) return true;
    call = std::move(found->second);
    calls_.erase(found);
  }
  if (isReply) {
    call.onReply(decoder);
    if (decoder.isSound() && decoder.isAtEnd()) return true;
  }
  if (call.onError) (*call.onError)(isReply ? Error::replyInvalid : Error::refused);
  return !decoder.isMalformed();
}

// Ending

void Connection::endLink(Ending ending) {
  const bool isFinal = ending == Ending::fault || !isNamed();
  if (ending == Ending::fault) {
    isSilent_ = true;
    inbox_.clear();
  }
  endAll(isFinal ? Error::invalid : Error::interrupted, isFinal);
}

void Connection::endAll(Error error, bool isFinal) {
  if (link_) ::shutdown(link_->socket.get(), SHUT_RDWR);  // wakes a thread that reads
  link_.reset();
  outbox_ = {};
  writeBlocked_ = false;
  paused_ = false;
  hungUp_ = false;
  if (isFinal) phase_ = Phase::over;
  for (WaitingCall* call : waiting_) {
    if (!call->isDone()) call->error = error;
    call->wake.notify_one();
  }
  // The calls end on the queue, behind what has arrived, and are released there: never under the
  // lock.
  queue_->async([self = shared_from_this(), calls = std::exchange(calls_, {}), error, isFinal] {
    self->deliverInbox();
    for (const auto& [serial, call] : calls) {
      if (call.onError) (*call.onError)(error);
    }
    self->announceEnd(isFinal);
  });
}

void Connection::announceEnd(bool isFinal) {
  std::function<void()> interruption;
  std::function<void()> invalidation;
  std::shared_ptr<NSObject> exported;
  std::shared_ptr<NSXPCConnection> handle;
  {
    const Lock lock(mutex_);
    if (isFinal) {
      invalidation.swap(invalidationHandler_);
      interruption.swap(interruptionHandler_);  // released with the rest: it may hold its owner
      exported.swap(exportedObject_);
      handle.swap(keepAlive_);
      implementer_ = nullptr;
    } else {
      interruption = interruptionHandler_;
    }
  }
  const auto& handler = isFinal ? invalidation : interruption;
  if (handler) handler();
}

}  // namespace Platform
