#include <poll.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "Platform/Runtime/ClosingTogether.h"
#include "Platform/XPC/AnsweringProcess.h"
#include "Platform/XPC/Connection.h"

// Waiting, on the caller's thread, for an answer or until all is sent.

namespace Platform {
namespace {

constexpr std::chrono::milliseconds longestLimit = std::chrono::hours(24 * 365);
constexpr auto withoutEnd = std::chrono::milliseconds(-1);

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds timeUntil(Clock::time_point end) {
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()),
                  std::chrono::milliseconds(0));
}

}  // namespace

std::optional<Connection::Error> Connection::waitForCall(std::uint64_t serial,
                                                         OutgoingFrame&& frame,
                                                         const ReplyReader& onReply, Limit limit) {
  WaitingCall call{serial};
  ReceiveRoom room;
  ClosingTogether::closeNow();
  if (limit) limit = std::min(*limit, longestLimit);
  const auto end = limit ? Clock::now() + *limit : Clock::time_point::max();
  {
    const WorkerPool::BlockingRegion region;
    if (!region) return Error::refused;
    Lock lock(mutex_);
    if (const auto error = submit(std::move(frame), Kind::call)) return error;
    calls_.add(call);
    flush();
    while (!call.isDone()) {
      const auto left = limit ? timeUntil(end) : withoutEnd;
      if (left.count() == 0) {
        call.end(Error::timedOut);
      } else if (link_ && !turn_.isReading) {
        readForWaitingCall(lock, room, call, left);
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

void Connection::readForWaitingCall(Lock& lock, ReceiveRoom& room, const WaitingCall& call,
                                    std::chrono::milliseconds atMost) {
  if (!link_->hasUnsent() && atMost == withoutEnd) {
    link_->setPatience({});
    read(lock, Wait::yes, room, &call);
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
    if (link_ == link) read(lock, Wait::no, room, &call);
  }
  putAside(room.frames());
  if (!inbox_.waiting.empty()) scheduleTurn();
}

bool Connection::waitUntilSent(std::chrono::milliseconds limit) {
  const WorkerPool::BlockingRegion region;
  const auto end = Clock::now() + std::min(limit, longestLimit);
  Lock lock(mutex_);
  flush();
  for (std::shared_ptr<Link> link = link_;; flush()) {
    if (!link) link = link_;  // the one that it is sent on
    const bool hasLost = dialer_.hasLost() || (link && link->hasLostUnsent());
    if (phase_ != Phase::open || link != link_ || hasLost) return false;
    if (link ? !link->hasUnsent() : !dialer_.isTrying()) return true;
    const auto left = timeUntil(end);
    if (left.count() == 0) return false;
    lock.unlock();
    // Not for longer than it takes to find out that the link has ended.
    if (link) {
      link->waitForSocket(POLLOUT, std::min(left, 10 * retryDelay));
    } else {
      std::this_thread::sleep_for(std::min(left, retryDelay));
    }
    lock.lock();
  }
}

}  // namespace Platform
