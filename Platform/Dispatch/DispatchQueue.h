// Serial queues: first in, first out, one task at a time.
//
// A queue owns no thread. While it has tasks it stands in line at the worker pool (WorkerPool.h),
// whose threads run one queue's tasks at a time each. A task may block: the pool notices and brings
// another thread in.
#pragma once

#include <atomic>
#include <concepts>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Platform/Dispatch/Task.h"

namespace Platform {

enum class DispatchQueueAttribute { serial };
inline constexpr auto DISPATCH_QUEUE_SERIAL = DispatchQueueAttribute::serial;

// While one lives, every task that the calling thread appends to a queue keeps `kept` until it has
// run; what those tasks append in turn does not. So the layer learns when all is done that one
// message led to.
class TasksKeep {
 public:
  explicit TasksKeep(std::shared_ptr<void> kept);
  ~TasksKeep();
  TasksKeep(const TasksKeep&) = delete;
  TasksKeep& operator=(const TasksKeep&) = delete;

 private:
  friend class DispatchQueue;
  static bool isThere();  // on this thread

  const std::shared_ptr<void> kept_;
  TasksKeep* const outer_;
};

// Always held by shared_ptr; a queue with tasks stays alive until they have run. Any thread.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  explicit DispatchQueue(std::string label) : label_(std::move(label)) {}

  const std::string& label() const { return label_; }

  // Appends and returns at once. When this thread has the queue, a task takes its place without
  // having been anywhere else, unless something of the callable's own could happen meanwhile.
  template <class Callable>
  requires std::constructible_from<Task, Callable>
  void async(Callable&& callable) {
    if constexpr (std::is_nothrow_constructible_v<std::decay_t<Callable>, Callable>) {
      if (std::vector<Task>* const tasks = TasksKeep::isThere() ? nullptr : openTasks()) {
        tasks->emplace_back(std::forward<Callable>(callable));
        return beginUnlessCurrent();
      }
    }
    append(Task(std::forward<Callable>(callable)));
  }

  // Whether the calling thread is running a task of this queue.
  bool isCurrent() const;

 private:
  friend class WorkerPool;

  // Runs the tasks that wait now, and says whether others have come meanwhile. Pool threads only.
  bool runWaitingTasks();

  // next_, which is the calling thread's if this is current, and if it was at rest; else null. What
  // is appended there goes behind what others have appended, if this thread can know of it: if it
  // cannot there is no order.
  std::vector<Task>* openTasks();
  void beginUnlessCurrent();
  void append(Task&& task);

  // Whoever takes it from `atRest` has the queue: puts it in line, and runs it or has it run. So a
  // task for a queue at rest takes no lock, nor does one that a task of the queue itself appends.
  enum class State { atRest, runs, othersWait };

  const std::string label_;
  std::atomic<State> state_ = State::atRest;
  // Of whoever has the queue:
  std::vector<Task> next_;                 // the next run's
  std::vector<Task> running_;              // this run's
  std::shared_ptr<DispatchQueue> inLine_;  // itself, while somebody has it
  std::mutex mutex_;
  // Protected by mutex_, with which the state becomes `othersWait` and ceases to be:
  std::vector<Task> others_;  // appended by other threads meanwhile, behind next_
};

using dispatch_queue_t = std::shared_ptr<DispatchQueue>;

// `label` names the queue in diagnostics.
dispatch_queue_t dispatch_queue_create(std::string label, DispatchQueueAttribute attribute);

// Appends a task, anything that can be called without arguments, and returns at once.
template <class Callable>
requires std::constructible_from<Task, Callable>
void dispatch_async(const dispatch_queue_t& queue, Callable&& callable) {
  queue->async(std::forward<Callable>(callable));
}

}  // namespace Platform
