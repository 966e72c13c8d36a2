#include "Platform/Dispatch/DispatchQueue.h"

#include <utility>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

thread_local const DispatchQueue* currentQueue = nullptr;

}  // namespace

void DispatchQueue::async(Task task) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(task));
    if (std::exchange(inLine_, true)) return;
  }
  WorkerPool::shared().enqueue(shared_from_this());
}

bool DispatchQueue::isCurrent() const {
  return currentQueue == this;
}

bool DispatchQueue::runWaitingTasks() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(waiting_);
  }
  currentQueue = this;
  for (Task& task : tasks) {
    task();
    // What a task captured goes with it, before the next one runs.
    task = nullptr;
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
