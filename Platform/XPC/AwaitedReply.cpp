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
  const std::lock_guard lock(mutex_);
  return !std::exchange(hasBegun_, true);
}

void AwaitedReply::end() {
  const std::lock_guard lock(mutex_);
  isOver_ = true;
  ended_.notify_one();
}

void AwaitedReply::wait(Limit limit) {
  std::unique_lock lock(mutex_);
  if (isOver_) return;
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
  const WorkerPool::BlockingRegion waiting;
  const auto isOver = [this] { return isOver_; };
  const bool isGivenUp =
      !waiting || (limit && !ended_.wait_for(lock, std::min(*limit, longest), isOver));
  if (isGivenUp && !std::exchange(hasBegun_, true)) return;
  ended_.wait(lock, isOver);
}

}  // namespace Platform
