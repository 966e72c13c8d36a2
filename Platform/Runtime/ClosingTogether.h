// ClosingTogether: descriptors that a task drops one by one, closed in one go.
//
// Descriptors that arrived together have numbers in a row, which the kernel closes in one call.
// Where answers with endpoints come in by the dozen, closing each by itself is most of what the
// receiver's processor does.
#pragma once

#include <array>
#include <cstddef>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

// On one thread, as a local variable.
class ClosingTogether {
 public:
  ClosingTogether();
  ~ClosingTogether();
  ClosingTogether(const ClosingTogether&) = delete;
  ClosingTogether& operator=(const ClosingTogether&) = delete;

  // Closes the descriptor: with others when the ClosingTogether of this thread goes, or earlier
  // when many wait; at once on a thread that has none. For descriptors whose end nobody waits for.
  static void close(UniqueFd descriptor);
  // Closes what waits on this thread: before it waits itself, say.
  static void closeNow();

 private:
  void closeAll();

  std::array<int, 64> waiting_;
  std::size_t count_ = 0;
  ClosingTogether* const outer_;
};

}  // namespace Platform
