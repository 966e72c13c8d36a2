#include "Platform/XPC/Connection.h"

#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "Platform/Runtime/Stop.h"

// Setting up, sending and ending; ConnectionTurns.cpp has reading and delivering,
// ConnectionWaiting.cpp waiting.

namespace Platform {

Connection::Connection(Dialer::Target target) : dialer_(std::move(target)) {}

Connection::Connection(UniqueFd accepted) : link_(dialer_.linkFor(std::move(accepted))) {}

void Connection::exportInterface(NSXPCInterface interface) {
  const Lock lock(mutex_);
  exported_.setInterface(interface);
}

void Connection::exportObject(std::shared_ptr<NSObject> object) {
  const Lock lock(mutex_);
  exported_.setObject(std::move(object));
}

void Connection::setHandler(std::function<void()> Handlers::*which, std::function<void()> handler) {
  const Lock lock(mutex_);
  if (!ends_.handlers) ends_.handlers = std::make_unique<Handlers>();
  std::swap(ends_.handlers.get()->*which, handler);
}

void Connection::resume(std::shared_ptr<void> handle) {
  const Lock lock(mutex_);
  if (phase_ != Phase::created) return;
  exported_.begin(weak_from_this());
  phase_ = Phase::open;
  if (!link_) return;
  ends_.keepAlive = std::move(handle);
  updateInterest();
  if (!link_->hasWatch()) endAll(Error::invalid, true);
}

void Connection::invalidate() {
  const Lock lock(mutex_);
  if (phase_ == Phase::over) return;
  flush();
  inbox_.isClosed = true;
  inbox_.waiting.clear();
  endAll(Error::invalid, true);
}

void Connection::close() {
  // What goes is released after the lock: it may lead back here.
  std::vector<Incoming> inbox;
  PendingCalls::Blocks calls;
  Ends ends;
  const Lock lock(mutex_);
  flush();
  inbox_.isClosed = true;
  inbox.swap(inbox_.waiting);
  calls = calls_.takeEnded(calls_.endAll(Error::invalid));
  std::swap(ends, ends_);
  if (phase_ == Phase::open && link_ && link_->hasUnsent()) {
    phase_ = Phase::draining;
    ends_.keepAlive = shared_from_this();
    link_->stopReceiving();
    scheduleTurn();
  } else {
    phase_ = Phase::over;
    link_.reset();
  }
  // The blocks go on the queue like the calls they belong to. A method of the exported object may
  // be under way, and may be what led here.
  if (!calls.empty() || exported_.isThere()) {
    queue_->async([self = shared_from_this(), calls = std::move(calls)] {
      std::shared_ptr<NSObject> exported;
      const Lock guard(self->mutex_);
      exported = self->exported_.release();
    });
  }
}

// Sending

std::optional<Connection::Error> Connection::submit(OutgoingFrame&& frame, Kind kind) {
  if (phase_ != Phase::open) return Error::invalid;
  if (!frame.isSendable()) return Error::refused;
  if (!link_ && !dialer_.isTrying() && dial() == ConnectOutcome::refused) {
    if (kind == Kind::message) dialer_.lose();  // a call's end is told
    if (dialer_.isNamed()) return Error::interrupted;
    endAll(Error::invalid, true);
    return Error::invalid;
  }
  if (!link_) {
    dialer_.keep(std::move(frame));
  } else {
    if (kind == Kind::call && link_->state == Link::State::halfShut) return Error::invalid;
    link_->append(std::move(frame));
  }
  dialer_.nothingNewIsLost();
  return std::nullopt;
}

ConnectOutcome Connection::dial() {
  auto [link, outcome] = dialer_.dial();
  if (link) {
    link_ = std::move(link);
    updateInterest();
    if (link_->hasWatch()) {
      dialer_.handOver(*link_);
    } else {
      link_.reset();
      outcome = ConnectOutcome::tryLater;
    }
  }
  dialer_.setTrying(outcome == ConnectOutcome::tryLater);
  if (dialer_.isTrying()) {
    WorkerPool::shared().after(std::max(retryDelay, dialer_.restLeft()), clockQueue(),
                               [self = shared_from_this()] { self->retryDialing(); });
  }
  return outcome;
}

void Connection::retryDialing() {
  const Lock lock(mutex_);
  if (phase_ != Phase::open || link_) return;
  if (dial() == ConnectOutcome::refused) {
    endAll(dialer_.isNamed() ? Error::interrupted : Error::invalid, !dialer_.isNamed());
  }
  flush();
  calls_.wakeAll();
}

const dispatch_queue_t& Connection::clockQueue() {
  static const dispatch_queue_t* const queue =
      new dispatch_queue_t(dispatch_queue_create("NSXPCConnection.clock", DISPATCH_QUEUE_SERIAL));
  return *queue;
}

// The end of the socket is always of interest; input only when somebody is to be told of it who
// does not read for himself.
std::uint32_t Connection::eventsOfInterest() const {
  using State = Link::State;
  std::uint32_t events = EPOLLERR;
  const bool isRead = link_->state == State::open || link_->state == State::hungUp;
  if (isRead && phase_ == Phase::open && !turn_.isHeldBack) {
    events |= EPOLLRDHUP;
    if (link_->isReadByPool) events |= EPOLLIN;
  }
  if (link_->lastFlush() == Outbox::Result::blocked) events |= EPOLLOUT;
  return events;
}

void Connection::updateInterest() {
  if (!link_ || (phase_ != Phase::open && phase_ != Phase::draining)) return;
  // A turn does this when it ends, and so does a waiting call. Only what blocks sending cannot
  // wait.
  const bool isLookedAfter =
      turn_.isScheduled || turn_.isRunning || (calls_.anyWaits() && !link_->isWatched());
  const bool isBlocked = link_->lastFlush() == Outbox::Result::blocked;
  if (link_->hasWatch() && isLookedAfter && !isBlocked) return;
  // Once of interest, input stays so until a waiting call takes over: changing it costs a call.
  const bool hasListener = exported_.isThere() || calls_.anyHasBlocks();
  link_->isReadByPool = !calls_.anyWaits() && (hasListener || link_->isReadByPool);
  const bool onlyToSend = isLookedAfter && link_->hasWatch();
  const std::uint32_t events = onlyToSend ? EPOLLERR | EPOLLOUT : eventsOfInterest();
  if (!link_->isWatchedFor(events)) link_->watchFor(events, weak_from_this());
}

void Connection::flush() {
  if (!link_) return;
  if (link_->hasUnsent()) {
    const Outbox::Result result = link_->flush();
    if (result == Outbox::Result::tryLater) scheduleTurnAfter(retryDelay, &Turn::retriesSending);
    // A link that is half shut, or only drains, ends with its last byte, whoever has sent it.
    const bool isLast = link_->state == Link::State::halfShut || phase_ == Phase::draining;
    if (result == Outbox::Result::done && isLast) scheduleTurn();
    if (result == Outbox::Result::broken) {
      // What the peer sent before it went is still to be read, and then the end.
      link_->dropUnsent();
      if (link_->state != Link::State::halfShut) link_->state = Link::State::hungUp;
      turn_.mayRead = true;
      scheduleTurn();
    }
  }
  goOnIfRoom();
  updateInterest();
}

// A peer that is over its share is read again when it has room, or when an answer of it is awaited.
void Connection::goOnIfRoom() {
  if (!link_ || link_->state != Link::State::paused) return;
  if (!link_->hasRoomAgain() && calls_.areEmpty()) return;
  link_->state = Link::State::open;
  turn_.mayRead = true;
  scheduleTurn();
}

void Connection::sendSoon() {
  const bool endsSoon = link_ && link_->state == Link::State::halfShut;
  // A turn does not come while a handler waits for an answer.
  if (endsSoon || (WorkerPool::isWorker() && !turn_.isLingering && !calls_.anyWaits())) {
    scheduleTurn();
    if (inbox_.isDelivering && !queue_->isCurrent()) sendLater();
  } else {
    flush();
  }
}

// Answers go out together after the handler at hand, but do not wait for one that takes its time.
void Connection::sendLater() {
  if (std::exchange(turn_.sendsLater, true)) return;
  WorkerPool::shared().after(retryDelay, clockQueue(), [self = shared_from_this()] {
    const Lock lock(self->mutex_);
    self->turn_.sendsLater = false;
    self->flush();
  });
}

void Connection::sendMessage(OutgoingFrame&& frame) {
  const Lock lock(mutex_);
  if (!submit(std::move(frame), Kind::message)) sendSoon();
}

void Connection::sendCall(std::uint64_t serial, OutgoingFrame&& frame, PendingCall call) {
  const Lock lock(mutex_);
  if (const auto error = submit(std::move(frame), Kind::call)) {
    if (call.onError) queue_->async([onError = call.onError, error] { (*onError)(*error); });
    return;
  }
  calls_.add(serial, std::move(call));
  updateInterest();
  sendSoon();
}

void Connection::answer(std::uint64_t link, OutgoingFrame&& frame) {
  const Lock lock(mutex_);
  if (!isLink(link)) return;
  link_->share.requestEnds();
  link_->append(std::move(frame));
  sendSoon();
}

void Connection::requestIsDone(std::uint64_t link) {
  const Lock lock(mutex_);
  if (!isLink(link)) return;
  link_->share.requestEnds();
  if (link_->state == Link::State::halfShut) scheduleTurn();
  goOnIfRoom();
}

// Ending

void Connection::endLink(Ending ending) {
  const bool isFinal = !dialer_.isNamed();
  if (ending == Ending::fault) {
    if (isFinal) inbox_.isClosed = true;
    inbox_.waiting.clear();
    dialer_.restAfterFault();
  }
  endAll(isFinal ? Error::invalid : Error::interrupted, isFinal);
}

void Connection::endAll(Error error, bool isFinal) {
  if (link_) {
    link_->shutDown();  // wakes a thread that reads
    if (link_->hasUnsent() || link_->hasLostUnsent()) dialer_.lose();
  }
  link_.reset();
  dialer_.dropUnsent();
  dialer_.setTrying(false);
  turn_.isHeldBack = false;
  if (isFinal) phase_ = Phase::over;
  endCalls(error, [self = shared_from_this(), isFinal] { self->announceEnd(isFinal); });
}

// The calls end on the queue, behind what has arrived, and are released there: never under the
// lock.
void Connection::endCalls(Error error, std::function<void()> then) {
  queue_->async(
      [self = shared_from_this(), end = calls_.endAll(error), error, then = std::move(then)] {
        self->deliverInbox();
        for (const auto& [serial, call] : self->endedCalls(end)) {
          if (call.onError) (*call.onError)(error);
        }
        if (then) then();
      });
}

PendingCalls::Blocks Connection::endedCalls(std::uint64_t end) {
  const Lock lock(mutex_);
  return calls_.takeEnded(end);
}

void Connection::endIfAllIsAnswered() {
  if (!link_ || link_->state != Link::State::halfShut || !inbox_.waiting.empty()) return;
  if (link_->share.isIdle() && !link_->hasUnsent()) endLink(Ending::peerGone);
}

// What kept the connection, to be released after the lock.
std::shared_ptr<void> Connection::endDraining() {
  const bool isDone = link_->state == Link::State::hungUp || !link_->hasUnsent();
  if (!isDone) return nullptr;
  phase_ = Phase::over;
  link_.reset();
  return std::move(ends_.keepAlive);
}

void Connection::announceEnd(bool isFinal) {
  std::unique_ptr<Handlers> handlers;
  std::shared_ptr<NSObject> exported;
  std::shared_ptr<void> handle;
  {
    const Lock lock(mutex_);
    if (isFinal) {
      handlers.swap(ends_.handlers);  // all are released: each may hold its owner
      handle.swap(ends_.keepAlive);
      exported = exported_.release();
    } else if (ends_.handlers) {
      handlers = std::make_unique<Handlers>(*ends_.handlers);
    }
  }
  if (!handlers) return;
  if (!isFinal && handlers->linkLoss) handlers->linkLoss();
  const auto& handler = isFinal ? handlers->invalidation : handlers->interruption;
  if (handler) handler();
}

}  // namespace Platform
