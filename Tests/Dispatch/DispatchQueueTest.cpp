#include "Platform/Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <vector>

#include "Platform/Dispatch/MemoryReturn.h"
#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Tests/Support/TestProcess.h"

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

// The task that the handler appends waits for one that stands behind it on the same worker, with
// nothing else going on that would wake another.
TEST(WorkerPool, BringsInAWorkerAfterAHandlerThatTookItsTime) {
  struct Slow final : ReadinessHandler {
    void ready(std::uint32_t) override {
      ::poll(nullptr, 0, 100);  // many of the keeper's periods
      dispatch_async(dispatch_queue_create("outer", DISPATCH_QUEUE_SERIAL), [this] {
        std::promise<void> inner;
        dispatch_async(dispatch_queue_create("inner", DISPATCH_QUEUE_SERIAL),
                       [&] { inner.set_value(); });
        inner.get_future().wait();
        done.set_value();
      });
    }
    std::promise<void> done;
  };
  const auto descriptor = UniqueFd(::eventfd(1, EFD_CLOEXEC));
  const auto handler = std::make_shared<Slow>();
  const Watch watch = WorkerPool::shared().watch(descriptor.get(), EPOLLIN, handler);
  handler->done.get_future().wait();
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep what is freed
TEST(WorkerPool, ReturnsMemoryAfterABurst) {
  WorkerPool::shared().returnMemoryAfterBursts();
  const std::size_t before = MemoryReturn::residentBytes();
  const auto descriptor = UniqueFd(::eventfd(0, EFD_CLOEXEC));
  Watch watch = WorkerPool::shared().watch(descriptor.get(), EPOLLIN, {});
  std::vector<std::unique_ptr<char[]>> blocks;
  for (int i = 0; i < 100'000; ++i) blocks.emplace_back(new char[1000]{});
  blocks.erase(blocks.begin(), blocks.end() - 1);  // the last one is above all others
  EXPECT_GT(MemoryReturn::residentBytes(), before + (64 << 20))
      << "else there is nothing to be shown";
  watch = {};
  EXPECT_TRUE(
      TestSupport::eventually([&] { return MemoryReturn::residentBytes() < before + (24 << 20); }));
}
#endif

}  // namespace
}  // namespace Platform
