#include "Shared/AppLaunchTerminationListener.h"

#include <gtest/gtest.h>

#include <string>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Workspace/NSRunningApplication.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using Counts = std::unordered_map<GApp, std::int64_t>;

constexpr auto main = GApp::main, menu = GApp::menu;

struct Delegate final : AppLaunchTerminationListenerDelegate {
  void appDidLaunch(GApp app) override { told('+', app); }
  void appDidTerminate(GApp app) override { told('-', app); }
  void told(char what, GApp app) {
    calls += what + std::string(app == main ? "main" : "menu");
    calls += std::to_string(listener->launchedApps().at(app));
  }
  const AppLaunchTerminationListener* listener = nullptr;
  std::string calls;  // each with the count that is stored during it: the one before
};

Value instance(std::optional<Text> identifier) {
  return std::make_shared<NSRunningApplication>(std::move(identifier));
}

class AppLaunchTerminationListenerTest : public testing::Test {
 protected:
  AppLaunchTerminationListenerTest() {
    delegate->listener = listener.get();
    listener->setDelegate(delegate);
  }
  void change(const Dictionary& change) {
    listener->observeValueForKeyPath({}, nullptr, &change, listener->kvoContextAddress());
  }

  const Value aMain = instance(mainAppBundleIdentifier);
  const Value aMenu = instance(menuAppBundleIdentifier);
  std::map<Text, std::int64_t> running;  // what the system would count
  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  const std::shared_ptr<AppLaunchTerminationListener> listener =
      std::make_shared<AppLaunchTerminationListener>(
          [this](const Text& identifier) { return running[identifier]; });
};

Dictionary changeOf(Value kind, const Text& key, Value list) {
  return {{NSKeyValueChangeKindKey, std::move(kind)}, {key, std::move(list)}};
}
Dictionary inserted(Array list) {
  return changeOf(2, NSKeyValueChangeNewKey, std::move(list));
}
Dictionary removed(Array list) {
  return changeOf(3, NSKeyValueChangeOldKey, std::move(list));
}

TEST_F(AppLaunchTerminationListenerTest, JudgesByTheCountsWhateverTheChangeSays) {
  struct Case {
    Counts before, running;  // running: also what is stored in the end
    Dictionary change;
    std::string calls;
  };
  const Array others = {instance({}), instance(agentAppBundleIdentifier), aMain};
  const Case cases[] = {
      {{{main, 1}}, {{main, 3}}, inserted({aMain, aMain}), "+main1"},
      {{{main, 2}}, {{main, 1}}, removed({aMain}), "-main2"},
      {{{main, 1}}, {{main, 1}}, removed({aMain}), ""},
      {{{main, 1}}, {{main, 0}}, inserted(others), "-main1"},
      {{{main, 0}, {menu, 1}}, {{main, 1}, {menu, 0}}, removed({aMenu, aMain}), "-menu1+main0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    listener->setLaunchedApps(c.before);
    for (const auto& [app, count] : c.running) running[bundleIdentifier(app)] = count;
    delegate->calls.clear();
    change(c.change);
    EXPECT_EQ(delegate->calls, c.calls);
    EXPECT_EQ(listener->launchedApps(), c.running);
  }
  delegate.reset();  // held weakly; it counts on without one
  EXPECT_EQ(listener->delegate(), nullptr);
  running[mainAppBundleIdentifier] = 5;
  change(inserted({aMain}));
  EXPECT_EQ(listener->launchedApps().at(main), 5);
}

TEST_F(AppLaunchTerminationListenerTest, IgnoresWhatIsForeignOrMalformed) {
  listener->setLaunchedApps({{main, 0}});
  running[mainAppBundleIdentifier] = 1;
  const Text& newKey = NSKeyValueChangeNewKey;
  for (const Value& kind : Array{"2"_text, 2.0, true, -2, 0, 1, 3, 4, Value()}) {
    change(changeOf(kind, newKey, Array{aMain}));
  }
  const Dictionary changes[] = {
      {},
      {{newKey, Array{aMain}}},
      changeOf(2, NSKeyValueChangeOldKey, Array{aMain}),
      changeOf(2, newKey, aMain),
      inserted({aMain, Value(std::make_shared<NSObject>())}),
      inserted({aMenu}),  // not tracked
      inserted({instance(mainAppBundleIdentifier + "."_text)}),
  };
  for (const Dictionary& c : changes) change(c);
  const Dictionary good = inserted({aMain});
  listener->observeValueForKeyPath({}, nullptr, &good, nullptr);
  listener->observeValueForKeyPath({}, nullptr, nullptr, listener->kvoContextAddress());
  EXPECT_EQ(listener->launchedApps(), (Counts{{main, 0}}));
  change(good);
  EXPECT_EQ(delegate->calls, "+main0");
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
