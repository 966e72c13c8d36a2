#include "Shared/AppLaunchTerminationObservation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include "Platform/Workspace/CheckIns.h"
#include "Tests/Workspace/Launching.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace TestSupport;
class AppLaunchTerminationObservationTest : public TestSupport::RunningApplicationsTest {};

struct WatchingProcess {
  ChildProcess process{{testApplication, "watch"}};
  std::int64_t launches = 0, ends = 0, main = -1, menu = -1;

  // Follows what it says until it has told of so many launches and ends.
  void await(int wantedLaunches, int wantedEnds) {
    while (main < 0 || launches < wantedLaunches || ends < wantedEnds) {
      const std::string line = process.readLine().value_or("");
      ASSERT_TRUE(std::istringstream(line) >> launches >> ends >> main >> menu) << line;
      ASSERT_EQ(launches - ends, main + menu) << line;
    }
    ASSERT_EQ(launches, wantedLaunches);
    ASSERT_EQ(ends, wantedEnds);
  }
};

TEST_F(AppLaunchTerminationObservationTest, TwoProcessesSeeEveryLaunchAndEndAndNoneOfOthers) {
  const std::string identifiers[] = {mainAppBundleIdentifier.utf8(), menuAppBundleIdentifier.utf8(),
                                     "com.example.Stranger"};
  WatchingProcess watchers[2];
  for (WatchingProcess& watcher : watchers) watcher.await(0, 0);
  std::minstd_rand random(1);
  std::vector<std::pair<std::size_t, ChildProcess>> living;
  int launches = 0, ends = 0, counts[3] = {};
  const int rounds = isSanitized ? 15 : 100;
  for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
    std::shuffle(living.begin(), living.end(), random);
    const std::size_t before = living.size();
    const std::size_t ending = random() % (before + 1);
    for (std::size_t i = 0; i < ending; ++i) {
      auto& [kind, process] = living[i];
      process.signal(SIGKILL);
      --counts[kind];
      ends += kind < 2;
    }
    for (auto some = random() % 20; some > 0; --some) {
      const std::size_t kind = random() % 3;
      living.emplace_back(kind, ChildProcess({testApplication, "as", identifiers[kind]}));
      ++counts[kind];
      launches += kind < 2;
    }
    // Killed at any moment of its start.
    ChildProcess({testApplication, "as", identifiers[2]}).signal(SIGKILL);
    living.erase(living.begin(), living.begin() + static_cast<std::ptrdiff_t>(ending));
    for (WatchingProcess& watcher : watchers) {
      watcher.await(launches, ends);
      EXPECT_EQ(watcher.main, counts[0]);
      EXPECT_EQ(watcher.menu, counts[1]);
    }
  }
  living.clear();
  for (const std::string& name : Platform::CheckIns::names(folder)) {
    EXPECT_EQ(Platform::CheckIns::presence(folder, name), Platform::CheckIns::Presence::gone);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(AppLaunchTerminationObservationTest, StartsFromWhatRunsAndEndsWithItsHandle) {
  const ChildProcess early = launch(mainAppBundleIdentifier.utf8());
  const auto listener = std::make_shared<AppLaunchTerminationListener>();
  {
    const AppLaunchTerminationObservation observation(listener, {GApp::main, GApp::menu});
    ASSERT_TRUE(observation);
    EXPECT_EQ(observation.countsAtStart(),
              (std::unordered_map<GApp, std::int64_t>{{GApp::main, 1}, {GApp::menu, 0}}));
    EXPECT_EQ(listener->launchedApps(), observation.countsAtStart());
  }
  EXPECT_EQ(listener.use_count(), 1);
  ::setenv("XDG_RUNTIME_DIR", "/nowhere", 1);
  EXPECT_FALSE(AppLaunchTerminationObservation(listener, {GApp::main}));
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
