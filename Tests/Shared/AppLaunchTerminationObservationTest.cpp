#include "Shared/AppLaunchTerminationObservation.h"

#include <gtest/gtest.h>

#include <future>
#include <list>
#include <random>
#include <sstream>

#include "Platform/Workspace/CheckIns.h"
#include "Tests/Workspace/Launching.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace TestSupport;
class AppLaunchTerminationObservationTest : public TestSupport::RunningApplicationsTest {};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int processes = 150;
#else
constexpr int processes = 1000;
#endif

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
                                     agentAppBundleIdentifier.utf8(), "com.example.Stranger"};
  WatchingProcess watchers[2];
  for (WatchingProcess& watcher : watchers) watcher.await(0, 0);
  std::minstd_rand random(1);
  std::list<std::pair<std::size_t, ChildProcess>> living;
  int launches = 0, ends = 0;
  const auto rest = [&] {
    std::int64_t counts[4] = {};
    for (const auto& [kind, process] : living) ++counts[kind];
    for (WatchingProcess& watcher : watchers) {
      watcher.await(launches, ends);
      EXPECT_EQ(watcher.main, counts[0]);
      EXPECT_EQ(watcher.menu, counts[1]);
    }
  };
  for (int started = 0; started < processes && !HasFatalFailure();) {
    decltype(living) ending;
    for (auto some = random() % 20; some > 0 && !living.empty(); --some) {
      ending.splice(ending.end(), living,
                    std::next(living.begin(), static_cast<int>(random() % living.size())));
    }
    for (auto& [kind, process] : ending) process.signal(SIGKILL), ends += kind < 2;
    decltype(living) starting;
    for (auto some = random() % 20; some > 0; --some, ++started) {
      const std::size_t kind = random() % 4;
      starting.emplace_back(kind, ChildProcess({testApplication, "as", identifiers[kind]}));
      launches += kind < 2;
    }
    for (auto& [kind, process] : starting) EXPECT_EQ(process.readLine(), "running");
    living.splice(living.end(), starting);
    // Killed at any moment of its start.
    ChildProcess({testApplication, "as", identifiers[3]}).signal(SIGKILL);
    ending.clear();
    rest();
  }
  for (auto& [kind, process] : living) process.signal(SIGKILL), ends += kind < 2;
  living.clear();
  rest();
  // A sweep.
  Platform::CheckIns::names(folder);
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

struct Signals final : AppLaunchTerminationListenerDelegate {
  void appDidLaunch(GApp app) override { launched.set_value(app); }
  void appDidTerminate(GApp app) override { ended.set_value(app); }
  std::promise<GApp> launched, ended;
};

TEST_F(AppLaunchTerminationObservationTest, StartsFromWhatRunsAndEndsWithItsHandle) {
  ChildProcess early = launch(mainAppBundleIdentifier.utf8());
  std::optional<ChildProcess> menu;
  const auto listener = std::make_shared<AppLaunchTerminationListener>();
  const auto signals = std::make_shared<Signals>();
  listener->setDelegate(signals);
  {
    const AppLaunchTerminationObservation observation(listener, {GApp::main, GApp::menu});
    ASSERT_TRUE(observation);
    EXPECT_EQ(observation.countsAtStart(),
              (std::unordered_map<GApp, std::int64_t>{{GApp::main, 1}, {GApp::menu, 0}}));
    menu.emplace(launch(menuAppBundleIdentifier.utf8()));
    EXPECT_EQ(signals->launched.get_future().get(), GApp::menu);
    kill(early);
    EXPECT_EQ(signals->ended.get_future().get(), GApp::main);
  }
  EXPECT_EQ(listener.use_count(), 1);
  ::setenv("XDG_RUNTIME_DIR", "/nowhere", 1);
  EXPECT_FALSE(AppLaunchTerminationObservation(listener, {GApp::main}));
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
