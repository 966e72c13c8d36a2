#include "Platform/Runtime/ClosingTogether.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace Platform {
namespace {

// The thread sanitizer does not see close_range: a number that is used again would be the same
// descriptor to it, and what its two owners do a race.
#if defined(__SANITIZE_THREAD__)
constexpr bool inOneCall = false;
#else
constexpr bool inOneCall = true;
#endif

thread_local ClosingTogether* ofThisThread = nullptr;

}  // namespace

ClosingTogether::ClosingTogether() : outer_(std::exchange(ofThisThread, this)) {}

ClosingTogether::~ClosingTogether() {
  closeAll();
  ofThisThread = outer_;
}

void ClosingTogether::close(UniqueFd descriptor) {
  if (!ofThisThread || !descriptor.isValid()) return;
  ClosingTogether& together = *ofThisThread;
  together.waiting_[together.count_++] = descriptor.release();
  if (together.count_ == together.waiting_.size()) together.closeAll();
}

void ClosingTogether::closeNow() {
  if (ofThisThread) ofThisThread->closeAll();
}

void ClosingTogether::closeAll() {
  const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(count_);
  std::sort(waiting_.begin(), end);
  for (auto first = waiting_.begin(); first != end;) {
    auto last = first;
    while (last + 1 != end && last[1] == *last + 1) ++last;
    const auto from = static_cast<unsigned>(*first);
    const auto to = static_cast<unsigned>(*last);
    // A kernel before 5.9, or a filter of system calls, may not know it.
    if (!inOneCall || ::close_range(from, to, 0) != 0) std::for_each(first, last + 1, ::close);
    first = last + 1;
  }
  count_ = 0;
}

}  // namespace Platform
