#include "Platform/Dispatch/DispatchQueue.h"

#include <utility>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

thread_local const DispatchQueue* currentQueue = nullptr;
thread_local TasksKeep* currentKeep = nullptr;

}  // namespace

TasksKeep::TasksKeep(std::shared_ptr<void> kept)
    : kept_(std::move(kept)), outer_(std::exchange(currentKeep, this)) {}

TasksKeep::~TasksKeep() {
  currentKeep = outer_;
}

bool TasksKeep::isThere() {
  return currentKeep != nullptr;
}

std::vector<Task>* DispatchQueue::openTasks() {
  if (isCurrent() && state_.load(std::memory_order_relaxed) != State::othersWait) return &next_;
  State found = State::atRest;
  return state_.compare_exchange_strong(found, State::runs) ? &next_ : nullptr;
}

void DispatchQueue::beginUnlessCurrent() {
  if (isCurrent()) return;
  inLine_ = shared_from_this();
  WorkerPool::shared().enqueue(this);
}

void DispatchQueue::append(Task&& task) {
  if (currentKeep) {
    task = [kept = currentKeep->kept_, inner = std::move(task)]() mutable { inner(); };
  }
  std::vector<Task>* tasks = openTasks();
  if (!tasks) {
    const std::lock_guard lock(mutex_);
    State found = state_;
    while (found != State::othersWait) {
      const State wanted = found == State::atRest ? State::runs : State::othersWait;
      if (state_.compare_exchange_weak(found, wanted)) break;
    }
    if (found != State::atRest) {
      others_.push_back(std::move(task));
      return;
    }
    tasks = &next_;
  }
  tasks->push_back(std::move(task));
  beginUnlessCurrent();
}

bool DispatchQueue::isCurrent() const {
  return currentQueue == this;
}

bool DispatchQueue::runWaitingTasks() {
  running_.swap(next_);
  currentQueue = this;
  for (Task& task : running_) {
    task();
    task.reset();  // what it captured goes with it, before the next one runs
  }
  running_.clear();
  currentQueue = nullptr;
  // A queue keeps room for its next few tasks, not for the longest line it ever had.
  if (running_.capacity() > 64) running_.shrink_to_fit();
  if (!next_.empty()) return true;
  State found = state_;
  if (found == State::runs) {
    // At rest one buffer is enough.
    next_.swap(running_);
    running_.shrink_to_fit();
    const dispatch_queue_t self = std::move(inLine_);  // may be the last to hold it
    if (state_.compare_exchange_strong(found, State::atRest)) return false;
    inLine_ = self;
  }
  // The larger of the two empty buffers is for those to come; it stays where many come at a time.
  if (next_.capacity() < running_.capacity()) next_.swap(running_);
  if (next_.capacity() < 8) next_.shrink_to_fit();
  const std::lock_guard lock(mutex_);
  next_.swap(others_);
  state_ = State::runs;
  return true;
}

dispatch_queue_t dispatch_queue_create(std::string label, DispatchQueueAttribute) {
  return std::make_shared<DispatchQueue>(std::move(label));
}

}  // namespace Platform
