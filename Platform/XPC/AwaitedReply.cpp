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

bool AwaitedReply::begin() {
  return !hasBegun_ && !hasBegun_.exchange(true);
}

void AwaitedReply::end() {
  const std::lock_guard lock(mutex_);
  isOver_ = true;
  ended_.notify_one();
}

void AwaitedReply::wait(Limit limit) {
  if (isOver_) return;
  std::unique_lock lock(mutex_);
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
  const WorkerPool::BlockingRegion waiting;
  const auto isOver = [this] { return isOver_.load(); };
  const bool isGivenUp =
      !waiting || (limit && !ended_.wait_for(lock, std::min(*limit, longest), isOver));
  if (isGivenUp && !hasBegun_.exchange(true)) return;
  ended_.wait(lock, isOver);
}

}  // namespace Platform
