// MemoryReturn: gives memory back to the system after a burst of peers.
//
// The C library keeps most of what is freed for the next time, since a block in use here and there
// keeps all below it. After a burst that is many times what the process uses else. So when peers
// have gone, and the process is far larger than at its start, the library is made to return what is
// free. That takes time in which allocating waits: it happens at most once a second, and a
// twentieth of the time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

#include "Platform/Dispatch/DispatchQueue.h"

namespace Platform {

// Never destroyed. Any thread.
class MemoryReturn {
 public:
  // Takes the process's size of now for its size at rest. Before any other thread allocates.
  MemoryReturn();

  // Somebody has gone, so memory is about to be free.
  void expect();

  // Bytes of the process's own that are in memory.
  static std::size_t residentBytes();

 private:
  void look();
  void lookAfter(std::chrono::milliseconds delay);
  bool isLarge() const;

  const std::size_t atRest_;  // bytes
  const dispatch_queue_t queue_ = dispatch_queue_create("MemoryReturn", DISPATCH_QUEUE_SERIAL);
  std::atomic<int> looks_ = 0;  // so many more: those who went may still be leaving
  std::atomic<bool> isScheduled_ = false;
};

}  // namespace Platform
