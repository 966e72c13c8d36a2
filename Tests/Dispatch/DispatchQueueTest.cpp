#include "Platform/Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <future>
#include <latch>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

TEST(DispatchQueue, RunsOneTaskAtATimeInTheOrderAppendedFromManyThreads) {
  const auto queue = dispatch_queue_create("test", DISPATCH_QUEUE_SERIAL);
  constexpr int tasks = 2000;
  int ran[8] = {};  // tasks of each thread
  std::atomic<int> inside = 0;
  std::latch done(std::size(ran) * tasks);
  std::latch appended(std::size(ran));
  std::vector<std::future<void>> appenders;
  for (int& own : ran) {
    appenders.push_back(std::async(std::launch::async, [&] {
      for (int i = 0; i < tasks; ++i) {
        dispatch_async(queue, [&, i] {
          EXPECT_EQ(++inside, 1);
          if (i == 0) appended.wait();  // so that there is work for other workers, too
          EXPECT_EQ(own++, i);
          EXPECT_TRUE(queue->isCurrent());
          --inside;
          done.count_down();
        });
      }
      appended.count_down();
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

struct Waiting final : ReadinessHandler {
  explicit Waiting(std::promise<void>& atEnd) : ended(atEnd) {}
  ~Waiting() {
    watch = {};
    ended.set_value();
  }
  void ready(std::uint32_t) override {
    called.set_value();
    goOn.get_future().wait();
  }
  const UniqueFd descriptor{::eventfd(1, EFD_CLOEXEC)};
  Watch watch;
  std::promise<void> called, goOn;
  std::promise<void>& ended;
};

TEST(WorkerPool, IsTheLastOwnerOfAHandlerThatStillWatches) {
  std::promise<void> ended;
  auto handler = std::make_shared<Waiting>(ended);
  handler->watch = WorkerPool::shared().watch(handler->descriptor.get(), EPOLLIN, handler);
  handler->called.get_future().wait();
  std::exchange(handler, nullptr)->goOn.set_value();
  ended.get_future().wait();
}

}  // namespace
}  // namespace Platform
