#include "Platform/Dispatch/MemoryReturn.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t tolerated = 8 << 20;  // bytes more than at rest
constexpr milliseconds shortestDelay = std::chrono::seconds(1);
constexpr milliseconds longestDelay = std::chrono::seconds(4);
constexpr int looksForEach = 4;

}  // namespace

MemoryReturn::MemoryReturn() : atRest_(residentBytes()) {
  // By default each worker has an arena of its own, and in each some block in use keeps pages.
  ::mallopt(M_ARENA_MAX, 2);
}

void MemoryReturn::expect() {
  looks_ = looksForEach;
  lookAfter(shortestDelay);
}

void MemoryReturn::lookAfter(milliseconds delay) {
  if (isScheduled_.exchange(true)) return;
  WorkerPool::shared().after(delay, queue_, [this] { look(); });
}

bool MemoryReturn::isLarge() const {
  return residentBytes() > atRest_ + tolerated;
}

std::size_t MemoryReturn::residentBytes() {
  std::size_t total = 0, resident = 0, shared = 0;  // pages; see statm in proc(5)
  std::ifstream("/proc/self/statm") >> total >> resident >> shared;
  return (resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

void MemoryReturn::look() {
  isScheduled_ = false;
  --looks_;
  if (!isLarge()) return;
  const auto start = std::chrono::steady_clock::now();
  {
    const WorkerPool::BlockingRegion busy;
    ::malloc_trim(0);
  }
  const auto taken = std::chrono::steady_clock::now() - start;
  if (looks_ <= 0) return;
  lookAfter(std::clamp(std::chrono::ceil<milliseconds>(20 * taken), shortestDelay, longestDelay));
}

}  // namespace Platform
