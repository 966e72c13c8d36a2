#include "Platform/Workspace/RunningApplicationsObservation.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>

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
    const bool inserted = change->at(NSKeyValueChangeKindKey) == Value(2);
    EXPECT_TRUE(inserted || change->at(NSKeyValueChangeKindKey) == Value(3));
    const auto& list = change->at(inserted ? NSKeyValueChangeNewKey : NSKeyValueChangeOldKey);
    for (const Value& element : *list.asArray()) {
      const auto instance = element.asObject<NSRunningApplication>();
      EXPECT_TRUE(inserted ? alive.insert(instance).second : alive.erase(instance) == 1);
      const std::lock_guard lock(mutex_);
      seen_.push_back((inserted ? '+' : '-') + instance->bundleIdentifier().value().utf8());
    }
    changed_.notify_all();
    if (const auto call = std::exchange(inFirstCall, nullptr)) call();
  }

  // The next `count` records, sorted, once they are there; none when they do not come in a minute.
  Strings next(std::size_t count) {
    std::unique_lock lock(mutex_);
    Strings records;
    if (changed_.wait_for(lock, std::chrono::minutes(1), [&] { return seen_.size() >= count; })) {
      const auto end = seen_.begin() + static_cast<std::ptrdiff_t>(count);
      records.assign(seen_.begin(), end);
      seen_.erase(seen_.begin(), end);
    }
    std::sort(records.begin(), records.end());
    return records;
  }

  std::set<std::shared_ptr<NSRunningApplication>> alive;  // at the start, and as told since
  std::function<void()> inFirstCall;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Strings seen_;
};

class RunningApplicationsObservationTest : public RunningApplicationsTest {
 protected:
  void begin() {
    observation.emplace(recorder, recorder.get());
    ASSERT_TRUE(*observation);
    for (const auto& one : observation->initialApplications()) recorder->alive.insert(one);
  }
  void observe() {
    begin();
    observation->resume();
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
  for (const bool byKill : {false, true}) {
    ChildProcess first = launch("a");
    ChildProcess second = launch("a");
    EXPECT_EQ(recorder->next(2), (Strings{"+a", "+a"}));
    byKill ? kill(first) : finish(first);
    EXPECT_EQ(recorder->next(1), Strings{"-a"});
    byKill ? kill(second) : finish(second);
    EXPECT_EQ(recorder->next(1), Strings{"-a"});
  }
  kill(early);
  finish(late);
  EXPECT_EQ(recorder->next(2), (Strings{"-early", "-late"}));
}

// While a stranger holds its file open, too.
TEST_F(RunningApplicationsObservationTest, AForkedChildKeepsItsApplicationRunningUntilItEndsToo) {
  observe();
  ChildProcess application = launch("a", "fork");
  std::ofstream stranger(pathOfOnly());
  std::ofstream(pathOfOnly()) << "scribbled";
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  kill(application);
  { const UniqueFd after = CheckIns::checkIn("after"_text); }
  EXPECT_EQ(recorder->next(2), (Strings{"+after", "-after"}));
  EXPECT_EQ(NSRunningApplication::runningApplicationsWithBundleIdentifier("a"_text).size(), 1u);
  application.closeInput();
  EXPECT_EQ(recorder->next(1), Strings{"-a"});
}

TEST_F(RunningApplicationsObservationTest, AnOverflowOfEventsLosesNoLaunchAndNoEnd) {
  std::promise<void> called, go;
  recorder->inFirstCall = [&] {
    called.set_value();
    go.get_future().wait();
  };
  observe();
  ChildProcess before = launch("before");
  called.get_future().wait();
  std::size_t mostEvents = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> mostEvents;
  ASSERT_GT(mostEvents, 0u);
  const std::filesystem::path here = folder / "here", there = folder / "there";
  std::ofstream{here};
  for (std::size_t i = 0; i <= mostEvents / 4; ++i) {
    std::filesystem::rename(here, there);
    std::filesystem::rename(there, here);
  }
  const ChildProcess unseen = launch("unseen");
  kill(before);
  go.set_value();
  EXPECT_EQ(recorder->next(1), Strings{"+before"});
  EXPECT_EQ(recorder->next(2), (Strings{"+unseen", "-before"}));
}

// Switches of context are the trace that a system call which waits leaves.
TEST_F(RunningApplicationsObservationTest, IsAtRestWithoutASystemCall) {
  observe();
  const ChildProcess running = launch("a");
  EXPECT_EQ(recorder->next(1), Strings{"+a"});
  const auto switches = [] {
    std::map<std::string, std::string> byThread;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::string line;
      std::getline(std::ifstream(task.path() / "comm"), line);
      if (!line.starts_with("gantrel")) continue;  // not ours, but a sanitizer's
      std::ifstream status(task.path() / "status");
      while (std::getline(status, line)) {
        if (line.find("ctxt_switches") != line.npos) byThread[task.path()] += line;
      }
    }
    return byThread;
  };
  ASSERT_FALSE(switches().empty());
  EXPECT_TRUE(eventually([&] {
    const auto before = switches();
    ::poll(nullptr, 0, 500);
    return switches() == before;
  }));
}

}  // namespace
}  // namespace Platform
