#include "Platform/Workspace/RunningApplicationsObservation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Runtime/Value.h"
#include "Platform/Workspace/CheckIns.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Tests/Workspace/Launching.h"

namespace Platform {
namespace {

using namespace TestSupport;
using Strings = std::vector<std::string>;

// Writes down "+IDENTIFIER" and "-IDENTIFIER".
class Recorder : public NSObject {
 public:
  void observeValueForKeyPath(const std::optional<Text>& keyPath, const std::shared_ptr<NSObject>&,
                              const Dictionary* change, void* context) override {
    EXPECT_EQ(keyPath, "runningApplications"_text);
    EXPECT_EQ(context, this);
    const auto kind = change->at(NSKeyValueChangeKindKey).asUnsigned();
    const bool inserted = kind == 2u;
    EXPECT_TRUE(inserted || kind == 3u);
    const auto& list = change->at(inserted ? NSKeyValueChangeNewKey : NSKeyValueChangeOldKey);
    for (const Value& element : *list.asArray()) {
      const auto instance = element.asObject<NSRunningApplication>();
      const std::string identifier = instance->bundleIdentifier().value().utf8();
      EXPECT_TRUE(inserted ? alive.insert(instance).second : alive.erase(instance) == 1)
          << identifier;
      const std::lock_guard lock(mutex_);
      seen_.push_back((inserted ? '+' : '-') + identifier);
    }
    changed_.notify_all();
    std::unique_lock lock(mutex_);
    const auto call = std::exchange(meanwhile_, nullptr);
    lock.unlock();
    if (call) call();
  }

  // The next `count` records, once they are there; fewer when they do not come within a minute.
  Strings next(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::minutes(1),
                      [&] { return seen_.size() >= taken_ + count; });
    count = std::min(count, seen_.size() - taken_);
    const auto from = seen_.begin() + static_cast<std::ptrdiff_t>(taken_);
    taken_ += count;
    return {from, from + static_cast<std::ptrdiff_t>(count)};
  }

  std::size_t seen() {
    const std::lock_guard lock(mutex_);
    return seen_.size();
  }

  // Runs in the next call.
  void meanwhile(std::function<void()> function) {
    const std::lock_guard lock(mutex_);
    meanwhile_ = std::move(function);
  }

  std::set<std::shared_ptr<NSRunningApplication>>
      alive;  // what the observation began with and told

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> meanwhile_;
  Strings seen_;
  std::size_t taken_ = 0;
};

class RunningApplicationsObservationTest : public RunningApplicationsTest {
 protected:
  void begin() {
    observation.emplace(recorder, recorder.get());
    ASSERT_TRUE(*observation);
    for (const auto& application : observation->initialApplications()) {
      recorder->alive.insert(application);
    }
  }
  void observe() {
    begin();
    observation->resume();
  }
  // Returns when everything that happened before has been handled.
  void settle() {
    {
      const UniqueFd marker = CheckIns::checkIn("settle"_text);
      ASSERT_EQ(recorder->next(1), Strings{"+settle"});
    }
    ASSERT_EQ(recorder->next(1), Strings{"-settle"});
  }
  std::string pathOfOnly() const { return folder / CheckIns::names(folder).at(0); }

  const std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::optional<RunningApplicationsObservation> observation;
};

TEST_F(RunningApplicationsObservationTest, TellsOfProcessesThatLaunchAndEndInWhateverWay) {
  ChildProcess early = launch("early");
  ChildProcess between = launch("between");
  begin();
  ChildProcess late = launch("late");
  kill(between);
  observation->resume();
  auto gathered = recorder->next(2);
  std::sort(gathered.begin(), gathered.end());
  EXPECT_EQ(gathered, (Strings{"+late", "-between"}));
  for (const bool byKill : {false, true}) {
    ChildProcess process = launch("a");
    EXPECT_EQ(recorder->next(1), Strings{"+a"});
    ChildProcess second = launch("a");
    EXPECT_EQ(recorder->next(1), Strings{"+a"});
    byKill ? kill(process) : finish(process);
    EXPECT_EQ(recorder->next(1), Strings{"-a"});
    byKill ? kill(second) : finish(second);
    EXPECT_EQ(recorder->next(1), Strings{"-a"});
  }
  kill(early);
  finish(late);
  EXPECT_EQ(recorder->next(2), (Strings{"-early", "-late"}));
  const ChildProcess hidden = launch("hidden");
  EXPECT_EQ(recorder->next(1), Strings{"+hidden"});
  std::filesystem::remove(pathOfOnly());
  EXPECT_EQ(recorder->next(1), Strings{"-hidden"});
  settle();
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(RunningApplicationsObservationTest, AForkedChildKeepsItsApplicationRunningUntilItEndsToo) {
  observe();
  ChildProcess application = launch("a", "fork");
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  kill(application);
  settle();
  EXPECT_EQ(NSRunningApplication::runningApplicationsWithBundleIdentifier("a"_text).size(), 1u);
  application.closeInput();
  EXPECT_EQ(recorder->next(1), Strings{"-a"});
}

TEST_F(RunningApplicationsObservationTest, AStrangerWhoHoldsTheFileOpenChangesNothing) {
  observe();
  ChildProcess application = launch("a");
  std::ofstream stranger(pathOfOnly());
  std::ofstream(pathOfOnly()) << "scribbled";
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  settle();
  kill(application);
  EXPECT_EQ(recorder->next(1), Strings{"-a"});
}

// The kernel tells of the closing before it drops the lock. Here the lock goes later still, in
// silence.
TEST_F(RunningApplicationsObservationTest, ALockThatOutlastsTheSignOfTheEndIsLookedAtAgain) {
  UniqueFd early = CheckIns::checkIn("early"_text);
  const auto unlock = [](const UniqueFd& file) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    EXPECT_EQ(::fcntl(file.get(), F_OFD_SETLK, &lock), 0);
  };
  observe();
  settle();
  unlock(early);
  EXPECT_EQ(recorder->next(1), Strings{"-early"});
  UniqueFd application = CheckIns::checkIn("a"_text);
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  std::ofstream{pathOfOnly()};
  settle();
  unlock(application);
  EXPECT_EQ(recorder->next(1), Strings{"-a"});
}

TEST_F(RunningApplicationsObservationTest, AnOverflowOfEventsLosesNoLaunchAndNoEnd) {
  observe();
  std::promise<void> called, go;
  recorder->meanwhile([&] {
    called.set_value();
    go.get_future().wait();
  });
  ChildProcess before = launch("before");
  called.get_future().wait();
  std::size_t mostEvents = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> mostEvents;
  ASSERT_GT(mostEvents, 0u);
  const std::string here = folder / "here", there = folder / "there";
  std::ofstream{here};
  for (std::size_t i = 0; i <= mostEvents / 4; ++i) {
    ASSERT_EQ(::rename(here.c_str(), there.c_str()) + ::rename(there.c_str(), here.c_str()), 0);
  }
  const ChildProcess unseen = launch("unseen");
  kill(before);
  go.set_value();
  EXPECT_EQ(recorder->next(1), Strings{"+before"});
  auto found = recorder->next(2);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (Strings{"+unseen", "-before"}));
}

TEST_F(RunningApplicationsObservationTest,
       WithoutADescriptorToLookWithNothingIsToldUntilThereIsOne) {
  observe();
  const ChildProcess application = launch("a");
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  std::vector<std::ofstream> signs(50);
  for (std::ofstream& sign : signs) sign.open(pathOfOnly());
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  for (std::ofstream& sign : signs) {
    sign.close();
    std::this_thread::yield();
  }
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  settle();
}

TEST_F(RunningApplicationsObservationTest, EndsFromInsideItsOwnCall) {
  observe();
  const std::size_t descriptors = openDescriptors(::getpid());
  const auto first = std::make_shared<Recorder>();
  std::optional<RunningApplicationsObservation> ending(std::in_place, first, first.get());
  std::promise<void> ended, more;
  first->meanwhile([&] {
    ending.reset();
    ended.set_value();
    more.get_future().wait();
  });
  ending->resume();
  const UniqueFd a = CheckIns::checkIn("a"_text);
  ended.get_future().wait();
  const UniqueFd b = CheckIns::checkIn("b"_text);
  more.set_value();
  EXPECT_EQ(recorder->next(2), (Strings{"+a", "+b"}));
  EXPECT_TRUE(eventually([&] { return openDescriptors(::getpid()) == descriptors + 2; }));
  EXPECT_EQ(first->seen(), 1u);
}

TEST_F(RunningApplicationsObservationTest, EndsElsewhereOnlyAfterACallThatIsUnderWay) {
  observe();
  std::promise<void> called, go, ending;
  bool inside = true;
  recorder->meanwhile([&] {
    called.set_value();
    go.get_future().wait();
    inside = false;
  });
  const UniqueFd application = CheckIns::checkIn("a"_text);
  called.get_future().wait();
  std::thread opener([&] {
    ending.get_future().wait();
    go.set_value();
  });
  ending.set_value();
  observation.reset();
  EXPECT_FALSE(inside);
  opener.join();
}

// Switches of context are the trace that a system call which waits leaves.
TEST_F(RunningApplicationsObservationTest, IsAtRestWithoutASystemCall) {
  observe();
  const ChildProcess running = launch("a");
  ChildProcess ended = launch("b");
  kill(ended);
  EXPECT_EQ(recorder->next(3), (Strings{"+a", "+b", "-b"}));
  const auto switches = [] {
    std::map<std::string, std::string> byThread;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::string line;
      // Ours, not a sanitizer's.
      if (!std::getline(std::ifstream(task.path() / "comm"), line) ||
          !line.starts_with("gantrel")) {
        continue;
      }
      std::ifstream status(task.path() / "status");
      while (std::getline(status, line)) {
        if (line.find("ctxt_switches") != line.npos) byThread[task.path()] += line;
      }
    }
    return byThread;
  };
  bool rested = false;
  for (int tries = 0; !rested && tries < 60; ++tries) {
    const auto before = switches();
    ASSERT_FALSE(before.empty());
    ::poll(nullptr, 0, 500);
    rested = switches() == before;
  }
  EXPECT_TRUE(rested);
}

}  // namespace
}  // namespace Platform
