#include "Platform/XPC/AwaitedReply.h"

#include <condition_variable>
#include <mutex>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

thread_local bool waitsHere = false;

}  // namespace

struct AwaitedReply::State {
  std::mutex mutex;
  std::condition_variable ended;
  // Protected by mutex:
  bool hasBegun = false;
  bool isOver = false;
};

AwaitedReply::Scope::Scope() : isInner_(std::exchange(waitsHere, true)) {}

AwaitedReply::Scope::~Scope() {
  waitsHere = isInner_;
}

bool AwaitedReply::isWaitingHere() {
  return waitsHere;
}

AwaitedReply::AwaitedReply() : state_(std::make_unique<State>()) {}

AwaitedReply::~AwaitedReply() = default;

bool AwaitedReply::begin() {
  const std::lock_guard lock(state_->mutex);
  return !std::exchange(state_->hasBegun, true);
}

void AwaitedReply::end() {
  const std::lock_guard lock(state_->mutex);
  state_->isOver = true;
  state_->ended.notify_one();
}

void AwaitedReply::wait() {
  std::unique_lock lock(state_->mutex);
  if (state_->isOver) return;
  const WorkerPool::BlockingRegion waiting;
  state_->ended.wait(lock, [this] { return state_->isOver; });
}

}  // namespace Platform
