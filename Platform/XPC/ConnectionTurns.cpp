#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "Platform/Runtime/ClosingTogether.h"
#include "Platform/XPC/AnsweringProcess.h"
#include "Platform/XPC/Connection.h"

// Reading, delivering and waiting; Connection.cpp has the rest.

namespace Platform {
namespace {

constexpr auto retryDelay = std::chrono::milliseconds(10);
constexpr auto lingerTime = std::chrono::milliseconds(10);
constexpr std::chrono::milliseconds longestLimit = std::chrono::hours(24 * 365);
constexpr auto withoutEnd = std::chrono::milliseconds(-1);

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds timeUntil(Clock::time_point end) {
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()),
                  std::chrono::milliseconds(0));
}

}  // namespace

// Waiting

std::optional<Connection::Error> Connection::waitForCall(std::uint64_t serial, OutgoingFrame frame,
                                                         const DecodeReply& onReply, Limit limit) {
  WaitingCall call{serial};
  ClosingTogether::closeNow();
  if (limit) limit = std::min(*limit, longestLimit);
  const auto end = limit ? Clock::now() + *limit : Clock::time_point::max();
  {
    const WorkerPool::BlockingRegion region;
    if (!region) return Error::refused;
    Lock lock(mutex_);
    if (const auto error = submit(std::move(frame), Kind::call)) return error;
    calls_.add(call);
    updateInterest();
    flush();
    while (!call.isDone()) {
      const auto left = limit ? timeUntil(end) : withoutEnd;
      if (left.count() == 0) {
        call.end(Error::timedOut);
      } else if (link_ && !turn_.isReading) {
        readForWaitingCall(lock, left);
      } else if (limit) {
        call.wake.wait_until(lock, end);
      } else {
        call.wake.wait(lock);
      }
    }
    calls_.remove(call);
    if (calls_.anyWaits()) {
      calls_.wakeFirst();  // somebody has to read
    } else {
      updateInterest();
      if (std::exchange(turn_.isMissed, false)) {
        turn_.mayRead = true;
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
  if (isReply && decoder.isSound() && !call.answer->lacksDescriptors) {
    const AnsweringProcess process(call.origin.process);
    onReply(decoder);
  }
  if (decoder.isMalformed()) {
    const Lock lock(mutex_);
    if (isLink(call.origin.link)) endLink(Ending::fault);
  }
  if (decoder.isSound() && decoder.isAtEnd()) {
    return isReply ? std::nullopt : std::optional(Error::refused);
  }
  return Error::replyInvalid;
}

void Connection::readForWaitingCall(Lock& lock, std::chrono::milliseconds atMost) {
  if (!link_->hasUnsent() && atMost == withoutEnd) {
    link_->setPatience({});
    read(lock, Wait::yes);
  } else {
    const std::shared_ptr<Link> link = link_;
    short events = POLLIN;
    if (link->hasUnsent() && !turn_.retriesSending) events |= POLLOUT;
    if (turn_.retriesSending && (atMost == withoutEnd || retryDelay < atMost)) atMost = retryDelay;
    turn_.isReading = true;
    lock.unlock();
    link->waitForSocket(events, atMost);
    lock.lock();
    turn_.isReading = false;
    if (link_ != link) return;
    flush();
    if (link_ == link) read(lock, Wait::no);
  }
  if (!inbox_.waiting.empty()) scheduleTurn();
}

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
  bool hasRead = false;
  std::shared_ptr<void> kept;  // released after the lock
  Lock lock(mutex_);
  turn_.isScheduled = false;
  turn_.isRunning = true;
  flush();
  const bool mayLinger = std::exchange(turn_.mayLinger, false);
  if (link_ && phase_ == Phase::open) {
    hasRead =
        std::exchange(turn_.mayRead, false) ? read(lock, Wait::no) : mayLinger && linger(lock);
    turn_.mayLinger = hasRead && !inbox_.waiting.empty();
  } else if (link_ && phase_ == Phase::draining) {
    kept = endDraining();
  }
  deliverInbox(lock);
  turn_.isRunning = false;
  endIfAllIsAnswered();
  goOnIfRoom();
  // What was delivered may have left tasks on other queues, whose answers the next turn sends.
  if (hasRead) {
    scheduleTurn();
  } else {
    // A connection that is served keeps its buffers from turn to turn; one at rest costs little.
    inbox_.delivering.shrink_to_fit();
    inbox_.waiting.shrink_to_fit();
    if (link_) link_->rest();
  }
  updateInterest();
}

bool Connection::linger(Lock& lock) {
  if (turn_.isReading || calls_.anyWaits() || link_->hasUnsent()) return false;
  if (!WorkerPool::shared().canSpareWorker()) return false;
  link_->setPatience(lingerTime);
  const WorkerPool::BlockingRegion region;
  turn_.isLingering = true;
  const bool hasRead = read(lock, Wait::yes);
  turn_.isLingering = false;
  return hasRead;
}

// One receive. Says whether it brought anything.
bool Connection::read(Lock& lock, Wait wait) {
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
  thread_local std::vector<Frame> frames;  // empty but here
  const Reception reception = link->receive(wait, mayHoldBack, frames);
  const bool hasEnded = reception.outcome == Reception::Outcome::ended;
  const bool peerMayRead = hasEnded && link->peerMayRead();
  lock.lock();
  turn_.isReading = false;
  // A call that began to wait meanwhile has left the reading to this thread, and takes it over now,
  // whatever came of it.
  calls_.wakeFirst();
  if (link_ != link) {
    frames.clear();
    return false;
  }
  if (reception.sender != 0) link_->setProcess(dialer_.processNumber(reception.sender));
  take(frames);
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
      endLink(Ending::fault);
      return false;
  }
  return false;
}

void Connection::take(std::vector<Frame>& frames) {
  for (Frame& frame : frames) {
    if (calls_.giveToWaiting(frame, link_->origin())) continue;
    link_->share.requestBegins();
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
    lock.unlock();
    goesOn = std::ranges::all_of(delivering,
                                 [this](Incoming& incoming) { return deliverOrEnd(incoming); });
    delivering.clear();
    ClosingTogether::closeNow();
    lock.lock();
  }
}

// False when nothing that came with it or after it is to be delivered.
bool Connection::deliverOrEnd(Incoming& incoming) {
  if (inbox_.isClosed) return false;
  const bool isSound = deliver(incoming);
  if (incoming.frame.descriptors.hasUnclaimed()) closeUnclaimed(incoming);
  if (isSound) return true;
  const Lock lock(mutex_);
  // What was the last link's is not held against the next.
  if (!isLink(incoming.origin.link)) return !inbox_.isClosed;
  endLink(Ending::fault);
  return false;
}

// False when the frame is malformed.
bool Connection::deliver(Incoming& incoming) {
  Decoder decoder(incoming.frame, Descriptors::checked);
  const std::size_t count = decoder.array();
  const std::uint64_t kind = decoder.unsignedInteger();
  if (!decoder.isSound()) return false;
  switch (static_cast<Wire::Kind>(kind)) {
    case Wire::Kind::message:
      return count == 3 && deliverRequest(incoming, decoder, false);
    case Wire::Kind::call:
      return count == 4 && deliverRequest(incoming, decoder, true);
    case Wire::Kind::reply:
      return count == 3 && deliverAnswer(incoming, decoder, true);
    case Wire::Kind::refusal:
      return count == 2 && deliverAnswer(incoming, decoder, false);
  }
  return false;
}

bool Connection::deliverRequest(Incoming& incoming, Decoder& decoder, bool expectsAnswer) {
  const auto serial = expectsAnswer ? std::optional(decoder.unsignedInteger()) : std::nullopt;
  if (!decoder.isSound()) return false;
  const auto request =
      std::make_shared<IncomingRequest>(serial, weak_from_this(), incoming.origin.link);
  return exported_.call(incoming.frame, decoder, expectsAnswer, request);
}

bool Connection::deliverAnswer(Incoming& incoming, Decoder& head, bool isReply) {
  const std::uint64_t serial = head.unsignedInteger();
  if (!head.isSound()) return false;
  std::optional<PendingCall> call;
  {
    const Lock lock(mutex_);
    if (isLink(incoming.origin.link)) link_->share.requestEnds();
    call = calls_.take(serial);
  }
  // An answer to what was never asked, or is no longer waited for, is nothing to anybody.
  if (!call) return true;
  Decoder decoder(incoming.frame, Descriptors::taken);
  if (isReply && !incoming.frame.lacksDescriptors) {
    decoder.array();
    decoder.unsignedInteger();
    decoder.unsignedInteger();
    const AnsweringProcess process(incoming.origin.process);
    call->onReply(decoder);
    if (decoder.isSound() && decoder.isAtEnd()) return true;
  }
  if (call->onError) (*call->onError)(isReply ? Error::replyInvalid : Error::refused);
  return !decoder.isMalformed();
}

// Whoever sends descriptors that nobody takes is not read until they are closed.
void Connection::closeUnclaimed(Incoming& incoming) {
  const auto link = incoming.origin.link;
  {
    const Lock lock(mutex_);
    if (isLink(link)) link_->share.closingBegins();
  }
  incoming.frame.descriptors.close(
      std::shared_ptr<void>(nullptr, [weak = weak_from_this(), link](void*) {
        const auto self = weak.lock();
        if (!self) return;
        const Lock lock(self->mutex_);
        if (!self->isLink(link)) return;
        self->link_->share.closingEnds();
        self->goOnIfRoom();
      }));
}

}  // namespace Platform
