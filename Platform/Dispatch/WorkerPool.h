// WorkerPool: the threads behind all serial queues and all descriptors of the process.
//
// Every worker does the same: it takes the queue that stands first in line and runs its tasks; when
// no queue is in line it waits for a descriptor to become ready, all workers on one epoll instance.
// The kernel wakes exactly one of them for an event, and that thread then does everything the event
// leads to: what a task appends to another queue is run by the same worker next, without waking
// anybody or taking a lock. So a request costs no switch between threads, while events that come
// meanwhile go to other workers.
//
// A task may block, in two ways. In a call of this layer it says so (BlockingRegion), and another
// worker takes over at once. In anything else, the keeper notices: a thread that sleeps on a timer,
// which is armed only while there is work, and that brings in another worker when one has been in
// the same task for a whole period while something waited. At rest there is no timer and no system
// call.
//
// Why not a library's event loop: one that shares its reactor among threads by handing it on wakes
// a second thread for each event, which on a loaded core costs as much as the whole request.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Dispatch/DispatchQueue.h"

namespace Platform {

// What is told when a descriptor becomes ready.
class ReadinessHandler {
 public:
  // `events` as of epoll_wait(2), edge-triggered. Any worker, possibly several at once:
  // implementations only put a task on a queue of theirs.
  virtual void ready(std::uint32_t events) = 0;

 protected:
  ~ReadinessHandler() = default;
};

class WorkerPool;

// The watch on one descriptor. It ends with the handle; a call that is under way may still finish.
// Must end before the descriptor is closed.
class Watch {
 public:
  Watch() = default;
  Watch(Watch&& other) noexcept;
  Watch& operator=(Watch&& other) noexcept;
  ~Watch();

  // False when there was no room for the watch (the kernel is out of memory or watches).
  explicit operator bool() const { return fd_ >= 0; }
  // Replaces the events of interest; what is already true of them is reported again.
  void setEvents(std::uint32_t events);

 private:
  friend class WorkerPool;
  Watch(int fd, std::uint64_t key) : fd_(fd), key_(key) {}
  void end();

  int fd_ = -1;
  std::uint64_t key_ = 0;
};

// One per process, never destroyed: workers run until the process ends. Any thread.
class WorkerPool {
 public:
  static WorkerPool& shared();

  // Whether the calling thread is a worker.
  static bool isWorker();

  // Watches `fd` for `events` (EPOLLIN, EPOLLOUT, EPOLLRDHUP; edge-triggered).
  Watch watch(int fd, std::uint32_t events, std::weak_ptr<ReadinessHandler> handler);

  // Appends the task to the queue after `delay`, rounded up to the keeper's period of 10 ms.
  void after(std::chrono::milliseconds delay, dispatch_queue_t queue, Task task);

  // From now on, gives memory back to the system when descriptors that were watched have gone
  // (MemoryReturn.h). For a process of ours that serves others for long. Once.
  void returnMemoryAfterBursts();

  // While one lives, the calling thread waits for something. Any thread; only a worker's counts.
  class BlockingRegion {
   public:
    BlockingRegion();
    ~BlockingRegion();
    BlockingRegion(const BlockingRegion&) = delete;
    BlockingRegion& operator=(const BlockingRegion&) = delete;

    // False when all other workers wait, too, and no more are to be had: what only another worker
    // can bring about will then never come, and must not be waited for.
    explicit operator bool() const { return isGranted_; }

   private:
    bool isGranted_ = true;
  };

  // While one lives, the calling worker waits a moment, some milliseconds, for what comes next.
  class LingeringRegion {
   public:
    LingeringRegion();
    ~LingeringRegion();
    LingeringRegion(const LingeringRegion&) = delete;
    LingeringRegion& operator=(const LingeringRegion&) = delete;

    // Whether nothing is in line and another worker waits for events; else it must not wait.
    explicit operator bool() const { return isGranted_; }

   private:
    bool isGranted_;
  };

 private:
  friend class DispatchQueue;
  friend class Watch;
  struct State;

  WorkerPool();
  ~WorkerPool() = delete;
  void enqueue(DispatchQueue* queue);  // which keeps itself alive

  State* const state_;
};

}  // namespace Platform
