#include "Platform/XPC/AwaitedReply.h"

#include <algorithm>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

thread_local const AwaitedReply::Scope* scopeHere = nullptr;

}  // namespace

AwaitedReply::Scope::Scope(Limit limit) : outer_(std::exchange(scopeHere, this)), limit_(limit) {}

AwaitedReply::Scope::~Scope() {
  scopeHere = outer_;
}

bool AwaitedReply::isWaitingHere() {
  return scopeHere != nullptr;
}

AwaitedReply::Limit AwaitedReply::limitHere() {
  return scopeHere ? scopeHere->limit_ : std::nullopt;
}

void AwaitedReply::end() {
  if (std::this_thread::get_id() == waiter_) {
    hasEndedHere_ = true;
    return;
  }
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  ended_.notify_one();  // under the lock: without it the waiter may be gone
}

bool AwaitedReply::endsWithin(Limit limit) {
  if (hasEndedHere_) return true;
  std::unique_lock lock(mutex_);
  const WorkerPool::BlockingRegion waiting;
  if (!waiting) return hasEnded_;
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
  const auto hasEnded = [this] { return hasEnded_; };
  if (limit) return ended_.wait_for(lock, std::min(*limit, longest), hasEnded);
  ended_.wait(lock, hasEnded);
  return true;
}

void AwaitedReply::waitForEnd() {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [this] { return hasEnded_; });
}

}  // namespace Platform
