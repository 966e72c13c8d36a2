#include "Platform/XPC/AwaitedReply.h"

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

thread_local bool waitsHere = false;

}  // namespace

AwaitedReply::Scope::Scope() : isInner_(std::exchange(waitsHere, true)) {}

AwaitedReply::Scope::~Scope() {
  waitsHere = isInner_;
}

bool AwaitedReply::isWaitingHere() {
  return waitsHere;
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

void AwaitedReply::wait() {
  std::unique_lock lock(mutex_);
  if (isOver_) return;
  const WorkerPool::BlockingRegion waiting;
  ended_.wait(lock, [this] { return isOver_; });
}

}  // namespace Platform
