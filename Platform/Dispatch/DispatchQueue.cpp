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

void DispatchQueue::async(Task task) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push_back({std::move(task), currentKeep ? currentKeep->kept_ : nullptr});
    if (std::exchange(inLine_, true)) return;
  }
  WorkerPool::shared().enqueue(shared_from_this());
}

bool DispatchQueue::isCurrent() const {
  return currentQueue == this;
}

bool DispatchQueue::runWaitingTasks() {
  std::vector<Waiting> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(waiting_);
  }
  currentQueue = this;
  for (Waiting& next : tasks) {
    next.task();
    // What a task captured goes with it, before the next one runs.
    next = {};
  }
  currentQueue = nullptr;
  tasks.clear();
  const std::lock_guard lock(mutex_);
  if (!waiting_.empty()) return true;
  // A queue at rest keeps room for its next few tasks, not for the longest line it ever had.
  if (tasks.capacity() <= 64) waiting_.swap(tasks);
  inLine_ = false;
  return false;
}

dispatch_queue_t dispatch_queue_create(std::string label, DispatchQueueAttribute) {
  return std::make_shared<DispatchQueue>(std::move(label));
}

void dispatch_async(const dispatch_queue_t& queue, Task task) {
  queue->async(std::move(task));
}

}  // namespace Platform
