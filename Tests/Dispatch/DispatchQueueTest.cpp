#include "Platform/Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <vector>

namespace Platform {
namespace {

TEST(DispatchQueue, RunsOneTaskAtATimeInTheOrderAppendedFromManyThreads) {
  const auto queue = dispatch_queue_create("test", DISPATCH_QUEUE_SERIAL);
  constexpr int threads = 8;
  constexpr int tasks = 2000;
  std::vector<int> last(threads, -1);
  std::atomic<int> inside = 0;
  std::latch done(threads * tasks);
  std::vector<std::future<void>> appenders;
  for (int t = 0; t < threads; ++t) {
    appenders.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < tasks; ++i) {
        dispatch_async(queue, [&, t, i] {
          EXPECT_EQ(++inside, 1);
          EXPECT_EQ(last[static_cast<std::size_t>(t)], i - 1);
          EXPECT_TRUE(queue->isCurrent());
          last[static_cast<std::size_t>(t)] = i;
          --inside;
          done.count_down();
        });
      }
    }));
  }
  done.wait();
  EXPECT_FALSE(queue->isCurrent());
}

// Every task blocks until the one it has appended itself, which stands behind it on the same
// worker, has run; with far more of them than there are workers.
TEST(WorkerPool, BringsInWorkersWhileTasksBlock) {
  constexpr int count = 24;
  std::latch done(count);
  for (int i = 0; i < count; ++i) {
    dispatch_async(dispatch_queue_create("outer", DISPATCH_QUEUE_SERIAL), [&] {
      std::promise<void> inner;
      dispatch_async(dispatch_queue_create("inner", DISPATCH_QUEUE_SERIAL),
                     [&] { inner.set_value(); });
      inner.get_future().wait();
      done.count_down();
    });
  }
  done.wait();
}

}  // namespace
}  // namespace Platform
