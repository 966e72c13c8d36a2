#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "Platform/Runtime/ClosingTogether.h"
#include "Platform/XPC/AnsweringProcess.h"
#include "Platform/XPC/Connection.h"

// Reading and delivering; Connection.cpp and ConnectionWaiting.cpp have the rest.

namespace Platform {
namespace {

constexpr auto lingerTime = std::chrono::milliseconds(10);

}  // namespace

// Reading

void Connection::ready(std::uint32_t events) {
  const Lock lock(mutex_);
  if (!link_) return;
  link_->watchHasTold();
  if ((events & (EPOLLHUP | EPOLLERR)) != 0) link_->state = Link::State::hungUp;
  turn_.mayRead = true;
  // Not left to the queue, where a handler may be taking its time.
  if (link_->lastFlush() == Outbox::Result::blocked) flush();
  scheduleTurn();
}

void Connection::scheduleTurn() {
  if (std::exchange(turn_.isScheduled, true)) return;
  queue_->async([self = shared_from_this()] { self->turn(); });
}

void Connection::scheduleTurnAfter(std::chrono::milliseconds delay, bool Turn::*reason) {
  if (std::exchange(turn_.*reason, true)) return;
  WorkerPool::shared().after(delay, clockQueue(), [self = shared_from_this(), reason] {
    const Lock lock(self->mutex_);
    self->turn_.*reason = false;
    self->turn_.mayRead = true;
    self->calls_.wakeFirst();
    self->scheduleTurn();
  });
}

void Connection::turn() {
  ReceiveRoom room;
  bool hasRead = false;
  std::shared_ptr<void> kept;  // released after the lock
  Lock lock(mutex_);
  turn_.isScheduled = false;
  turn_.isRunning = true;
  flush();
  const bool mayLinger = std::exchange(turn_.mayLinger, false);
  if (link_ && phase_ == Phase::open) {
    hasRead = std::exchange(turn_.mayRead, false) ? read(lock, Wait::no, room, nullptr)
                                                  : mayLinger && linger(lock, room);
    turn_.mayLinger = hasRead && !(room.frames().empty() && inbox_.waiting.empty());
  } else if (link_ && phase_ == Phase::draining) {
    kept = endDraining();
  }
  if (hasRead) {
    // What is delivered may leave tasks on other queues, whose answers the next turn sends; it does
    // the rest of this one's work, too.
    scheduleTurn();
    if (inbox_.waiting.empty()) {
      const Origin origin = link_->origin();
      lock.unlock();
      return deliverAll(room.frames(), origin);
    }
    putAside(room.frames());
  }
  deliverInbox(lock);
  turn_.isRunning = false;
  endIfAllIsAnswered();
  goOnIfRoom();
  if (!hasRead) {
    // A connection that is served keeps its buffers from turn to turn; one at rest costs little.
    inbox_.delivering.shrink_to_fit();
    inbox_.waiting.shrink_to_fit();
    if (link_) link_->rest();
  }
  updateInterest();
}

bool Connection::linger(Lock& lock, ReceiveRoom& room) {
  if (turn_.isReading || calls_.anyWaits() || link_->hasUnsent()) return false;
  if (!inbox_.waiting.empty()) return false;
  const WorkerPool::LingeringRegion region;
  if (!region) return false;
  link_->setPatience(lingerTime);
  turn_.isLingering = true;
  const bool hasRead = read(lock, Wait::yes, room, nullptr);
  turn_.isLingering = false;
  return hasRead;
}

// One receive. Says whether it brought anything. Answers are given to the calls that wait for them;
// the frames that are left in the room are counted, and the caller's to deliver.
bool Connection::read(Lock& lock, Wait wait, ReceiveRoom& room, const WaitingCall* reader) {
  using State = Link::State;
  if (turn_.isReading) {
    turn_.isMissed = true;
    return false;
  }
  if (link_->state == State::halfShut) return false;
  // Nobody who waits is put off, nor the end of a peer that is going.
  const bool mayHoldBack = link_->state != State::hungUp && !calls_.anyWaits();
  if (mayHoldBack && turn_.isHeldBack) return false;
  // While an answer of our own is awaited reading goes on, or two peers in backlog would starve.
  // Of a peer that is going, no more can come than is there.
  if (link_->state != State::hungUp && calls_.areEmpty() && link_->isOverShare()) {
    link_->state = State::paused;
    return false;
  }
  turn_.isReading = true;
  const std::shared_ptr<Link> link = link_;
  lock.unlock();
  const Reception reception = link->receive(wait, mayHoldBack, room);
  const bool hasEnded = reception.outcome == Reception::Outcome::ended;
  const bool peerMayRead = hasEnded && link->peerMayRead();
  lock.lock();
  turn_.isReading = false;
  // A call that began to wait meanwhile has left the reading to this thread, and takes it over now,
  // whatever came of it; unless this thread goes on, for a call of its own.
  if (!reader) calls_.wakeFirst();
  std::vector<Frame>& frames = room.frames();
  // A connection that only drains has no use for what came, or for the end that it made itself.
  if (link_ != link || phase_ == Phase::draining) {
    frames.clear();
    return false;
  }
  if (reception.sender != 0) link_->setProcess(dialer_.processNumber(reception.sender));
  if (calls_.anyWaits()) {
    std::erase_if(
        frames, [&](Frame& frame) { return calls_.giveToWaiting(frame, link_->origin(), reader); });
  }
  link_->share.requestsBegin(frames.size());
  switch (reception.outcome) {
    case Reception::Outcome::data:
      // More is there for sure when the buffer was filled, or when the end has been announced.
      if (wait == Wait::no) turn_.mayRead = reception.isFull || link_->state == State::hungUp;
      return true;
    case Reception::Outcome::nothingYet:
      if (link_->state == State::hungUp) link_->state = State::open;
      return false;
    case Reception::Outcome::heldBack:
      scheduleTurnAfter(retryDelay, &Turn::isHeldBack);
      return false;
    case Reception::Outcome::ended:
      inputHasEnded(peerMayRead);
      return false;
    case Reception::Outcome::fault:
      frames.clear();
      endLink(Ending::fault);
      return false;
  }
  return false;
}

// The inbox has its own copies.
void Connection::putAside(std::vector<Frame>& frames) {
  for (Frame& frame : frames) {
    frame.keep();
    inbox_.waiting.push_back({std::move(frame), link_->origin()});
  }
  frames.clear();
}

void Connection::inputHasEnded(bool peerMayRead) {
  const bool owesAnswers = exported_.isThere() && (!link_->share.isIdle() || link_->hasUnsent());
  if (!peerMayRead || !owesAnswers || dialer_.isNamed()) return endLink(Ending::peerGone);
  link_->state = Link::State::halfShut;
  // Nothing more comes: no answer to a call of our own either.
  if (!calls_.areEmpty()) endCalls(Error::invalid, {});
  scheduleTurn();
}

// Delivering

void Connection::deliverInbox() {
  Lock lock(mutex_);
  deliverInbox(lock);
}

void Connection::deliverInbox(Lock& lock) {
  ClosingTogether dropped;
  std::vector<Incoming>& delivering = inbox_.delivering;
  for (bool goesOn = true; goesOn && !inbox_.waiting.empty();) {
    delivering.swap(inbox_.waiting);
    inbox_.isDelivering = true;
    lock.unlock();
    goesOn = std::ranges::all_of(delivering, [this](Incoming& incoming) {
      return deliverOrEnd(incoming.frame, incoming.origin);
    });
    delivering.clear();
    ClosingTogether::closeNow();
    lock.lock();
    inbox_.isDelivering = false;
  }
}

void Connection::deliverAll(std::vector<Frame>& frames, const Origin& origin) {
  const ClosingTogether dropped;
  inbox_.isDelivering = true;
  for (Frame& frame : frames) {
    if (!deliverOrEnd(frame, origin)) break;
  }
  inbox_.isDelivering = false;
  frames.clear();
}

// False when nothing that came with it or after it is to be delivered.
bool Connection::deliverOrEnd(Frame& frame, const Origin& origin) {
  if (inbox_.isClosed) return false;
  const bool isSound = deliver(frame, origin);
  if (frame.descriptors.hasUnclaimed()) closeUnclaimed(frame, origin.link);
  if (isSound) return true;
  const Lock lock(mutex_);
  // What was the last link's is not held against the next.
  if (!isLink(origin.link)) return !inbox_.isClosed;
  endLink(Ending::fault);
  return false;
}

// False when the frame is malformed.
bool Connection::deliver(Frame& frame, const Origin& origin) {
  Decoder decoder(frame, Descriptors::checked);
  const std::size_t count = decoder.array();
  const std::uint64_t kind = decoder.unsignedInteger();
  if (!decoder.isSound()) return false;
  switch (static_cast<Wire::Kind>(kind)) {
    case Wire::Kind::message:
      return count == 3 && deliverRequest(frame, origin, decoder, false);
    case Wire::Kind::call:
      return count == 4 && deliverRequest(frame, origin, decoder, true);
    case Wire::Kind::reply:
      return count == 3 && deliverAnswer(frame, origin, decoder, true);
    case Wire::Kind::refusal:
      return count == 2 && deliverAnswer(frame, origin, decoder, false);
  }
  return false;
}

bool Connection::deliverRequest(Frame& frame, const Origin& origin, Decoder& decoder,
                                bool expectsAnswer) {
  const auto serial = expectsAnswer ? std::optional(decoder.unsignedInteger()) : std::nullopt;
  if (!decoder.isSound()) return false;
  return exported_.call(frame, decoder, serial, origin.link);
}

bool Connection::deliverAnswer(Frame& frame, const Origin& origin, Decoder& head, bool isReply) {
  const std::uint64_t serial = head.unsignedInteger();
  if (!head.isSound()) return false;
  std::optional<PendingCall> call;
  {
    const Lock lock(mutex_);
    if (isLink(origin.link)) link_->share.requestEnds();
    call = calls_.take(serial);
  }
  // An answer to what was never asked, or is no longer waited for, is nothing to anybody.
  if (!call) return true;
  Decoder decoder(frame, Descriptors::taken);
  if (isReply && !frame.lacksDescriptors) {
    decoder.array();
    decoder.unsignedInteger();
    decoder.unsignedInteger();
    const AnsweringProcess process(origin.process);
    call->onReply(decoder);
    if (decoder.isSound() && decoder.isAtEnd()) return true;
  }
  if (call->onError) (*call->onError)(isReply ? Error::replyInvalid : Error::refused);
  return !decoder.isMalformed();
}

// Whoever sends descriptors that nobody takes is not read until they are closed.
void Connection::closeUnclaimed(Frame& frame, std::uint64_t link) {
  {
    const Lock lock(mutex_);
    if (isLink(link)) link_->share.closingBegins();
  }
  frame.descriptors.close(std::shared_ptr<void>(nullptr, [weak = weak_from_this(), link](void*) {
    const auto self = weak.lock();
    if (!self) return;
    const Lock lock(self->mutex_);
    if (!self->isLink(link)) return;
    self->link_->share.closingEnds();
    self->goOnIfRoom();
  }));
}

}  // namespace Platform
