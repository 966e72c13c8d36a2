#include "Platform/Workspace/RunningApplicationsObservation.h"

#include <fcntl.h>
#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Runtime/Value.h"
#include "Platform/Workspace/CheckIns.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Tests/Workspace/Launching.h"

namespace Platform {
namespace {

using namespace TestSupport;
using Strings = std::multiset<std::string>;

// Writes down "+IDENTIFIER" and "-IDENTIFIER".
class Recorder : public NSObject {
 public:
  void observeValueForKeyPath(const std::optional<Text>& keyPath, const std::shared_ptr<NSObject>&,
                              const Dictionary* change, void* context) override {
    EXPECT_EQ(keyPath, "runningApplications"_text);
    EXPECT_EQ(context, this);
    const bool inserted = change->at(NSKeyValueChangeKindKey) == Value(2);
    const auto& list = change->at(inserted ? NSKeyValueChangeNewKey : NSKeyValueChangeOldKey);
    const auto instance = list.asArray()->at(0).asObject<NSRunningApplication>();
    EXPECT_TRUE(inserted ? alive.insert(instance).second : alive.erase(instance) == 1);
    std::unique_lock lock(mutex_);
    seen_.insert((inserted ? '+' : '-') + instance->bundleIdentifier().value().utf8());
    changed_.notify_all();
    const auto call = std::exchange(meanwhile_, nullptr);
    lock.unlock();
    if (call) call();
  }

  // All since it was last asked, once there are so many, or after a minute.
  Strings next(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::minutes(1), [&] { return seen_.size() >= count; });
    return std::exchange(seen_, {});
  }

  // Runs in the next call.
  void meanwhile(std::function<void()> function) {
    const std::lock_guard lock(mutex_);
    meanwhile_ = std::move(function);
  }

  // What the observation began with and told of.
  std::set<std::shared_ptr<NSRunningApplication>> alive;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> meanwhile_;
  Strings seen_;
};

class RunningApplicationsObservationTest : public RunningApplicationsTest {
 protected:
  void begin() {
    observation.emplace(recorder, recorder.get());
    ASSERT_TRUE(*observation);
    const auto initial = observation->initialApplications();
    recorder->alive.insert(initial.begin(), initial.end());
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
  EXPECT_EQ(recorder->next(2), (Strings{"+late", "-between"}));
  ChildProcess second = launch("late");
  EXPECT_EQ(recorder->next(1), Strings{"+late"});
  late.closeInput();
  EXPECT_EQ(recorder->next(1), Strings{"-late"});
  kill(second);
  EXPECT_EQ(recorder->next(1), Strings{"-late"});
  std::filesystem::remove(pathOfOnly());
  EXPECT_EQ(recorder->next(1), Strings{"-early"});
  settle();
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(RunningApplicationsObservationTest, AForkedChildKeepsItsApplicationRunningAndAStrangerNot) {
  observe();
  ChildProcess application = launch("a", "fork");
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  const std::ofstream stranger(pathOfOnly());
  std::ofstream(pathOfOnly()) << "scribbled";
  kill(application);
  settle();
  EXPECT_EQ(NSRunningApplication::runningApplicationsWithBundleIdentifier("a"_text).size(), 1u);
  application.closeInput();
  EXPECT_EQ(recorder->next(1), Strings{"-a"});
}

// The kernel tells of the closing before it drops the lock. Here the lock goes later still, in
// silence.
TEST_F(RunningApplicationsObservationTest, ALockThatOutlastsTheSignOfTheEndIsLookedAtAgain) {
  const UniqueFd early = CheckIns::checkIn("early"_text);
  const auto unlock = [](const UniqueFd& file) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    EXPECT_EQ(::fcntl(file.get(), F_OFD_SETLK, &lock), 0);
  };
  observe();
  settle();
  unlock(early);
  EXPECT_EQ(recorder->next(1), Strings{"-early"});
  const UniqueFd application = CheckIns::checkIn("a"_text);
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
  EXPECT_EQ(recorder->next(1), Strings{"+before"});
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
  EXPECT_EQ(recorder->next(2), (Strings{"+unseen", "-before"}));
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
  first->meanwhile([] { ADD_FAILURE() << "it had ended"; });
  more.set_value();
  EXPECT_EQ(recorder->next(2), (Strings{"+a", "+b"}));
  EXPECT_TRUE(eventually([&] { return openDescriptors(::getpid()) == descriptors + 2; }));
}

TEST_F(RunningApplicationsObservationTest, EndsElsewhereOnlyAfterACallThatIsUnderWay) {
  observe();
  std::promise<void> called, go;
  bool inside = true;
  recorder->meanwhile([&] {
    called.set_value();
    go.get_future().wait();
    inside = false;
  });
  const UniqueFd application = CheckIns::checkIn("a"_text);
  called.get_future().wait();
  const auto opener = std::async(std::launch::async, [&] { go.set_value(); });
  observation.reset();
  EXPECT_FALSE(inside);
}

// Switches of context are the trace that a system call which waits leaves.
TEST_F(RunningApplicationsObservationTest, IsAtRestWithoutASystemCall) {
  observe();
  const ChildProcess running = launch("a");
  ChildProcess ended = launch("b");
  EXPECT_EQ(recorder->next(2), (Strings{"+a", "+b"}));
  kill(ended);
  EXPECT_EQ(recorder->next(1), Strings{"-b"});
  // Of our threads, not of a sanitizer's.
  const std::string command = "cd /proc/" + std::to_string(::getpid()) +
                              "/task && grep ctxt $(grep -l ^gantrel */comm | sed s/comm/status/)";
  EXPECT_TRUE(eventually([&] {
    const std::string before = ChildProcess({"sh", "-c", command}).readAllOutput();
    ::poll(nullptr, 0, 500);
    return !before.empty() && ChildProcess({"sh", "-c", command}).readAllOutput() == before;
  }));
}

}  // namespace
}  // namespace Platform
