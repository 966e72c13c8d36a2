#include "Shared/AppLaunchTerminationListener.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Workspace/NSRunningApplication.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using Counts = std::unordered_map<GApp, std::int64_t>;
using Strings = std::vector<std::string>;

constexpr auto main = GApp::main, menu = GApp::menu;

struct Delegate final : AppLaunchTerminationListenerDelegate {
  void appDidLaunch(GApp app) override { told("launch of ", app); }
  void appDidTerminate(GApp app) override { told("end of ", app); }
  void told(const std::string& what, GApp app) {
    calls.push_back(what + (app == main ? "main" : "menu"));
    if (calls.size() == 1) held = listener->launchedApps();
  }
  const AppLaunchTerminationListener* listener = nullptr;
  Strings calls;
  Counts held;  // by the listener during the first call
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
  void change(const std::optional<Dictionary>& change) {
    listener->observeValueForKeyPath({}, nullptr, change ? &*change : nullptr,
                                     listener->kvoContextAddress());
  }

  const Value aMain = instance(mainAppBundleIdentifier);
  const Value aMenu = instance(menuAppBundleIdentifier);
  std::map<Text, std::int64_t> running;  // what the system would count
  Strings asked;
  const std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  const std::shared_ptr<AppLaunchTerminationListener> listener =
      std::make_shared<AppLaunchTerminationListener>([this](const Text& identifier) {
        asked.push_back(identifier.utf8());
        return running[identifier];
      });
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
    Strings calls;
  };
  const Array both = {aMenu, aMain};
  const Array others = {instance({}), instance(agentAppBundleIdentifier), instance("x"_text),
                        aMain};
  const Case cases[] = {
      {{{main, 0}}, {{main, 1}}, inserted({aMain}), {"launch of main"}},
      {{{main, 1}}, {{main, 2}}, inserted({aMain}), {"launch of main"}},
      {{{main, 2}}, {{main, 1}}, removed({aMain}), {"end of main"}},
      {{{menu, 1}}, {{menu, 0}}, removed({aMenu}), {"end of menu"}},
      {{{main, 0}}, {{main, 2}}, inserted({aMain, aMain}), {"launch of main"}},
      {{{main, 1}}, {{main, 1}}, removed({aMain}), {}},
      {{{main, 1}}, {{main, 0}}, inserted({aMain}), {"end of main"}},
      {{{main, 0}}, {{main, 1}}, removed({aMain}), {"launch of main"}},
      {{{main, 0}}, {{main, 1}}, inserted(others), {"launch of main"}},
      {{{main, 0}, {menu, 1}},
       {{main, 1}, {menu, 0}},
       removed(both),
       {"end of menu", "launch of main"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    listener->setLaunchedApps(c.before);
    for (const auto& [app, count] : c.running) running[bundleIdentifier(app)] = count;
    delegate->calls.clear();
    delegate->held = c.before;
    change(c.change);
    EXPECT_EQ(delegate->calls, c.calls);
    EXPECT_EQ(listener->launchedApps(), c.running);
    EXPECT_EQ(delegate->held, c.before) << "stored before the call";
  }
}

TEST_F(AppLaunchTerminationListenerTest, IgnoresWhatIsForeignOrMalformed) {
  listener->setLaunchedApps({{main, 0}});
  running[mainAppBundleIdentifier] = 1;
  const Text& newKey = NSKeyValueChangeNewKey;
  for (const Value& kind : Array{"2"_text, 2.0, true, -2, 0, 1, 3, 4, 5, Value()}) {
    change(changeOf(kind, newKey, Array{aMain}));
  }
  const std::optional<Dictionary> changes[] = {
      std::nullopt,
      Dictionary{},
      Dictionary{{newKey, Array{aMain}}},
      changeOf(2, NSKeyValueChangeOldKey, Array{aMain}),
      changeOf(2, newKey, aMain),
      inserted({aMain, Value("x"_text)}),
      inserted({aMain, Value(std::make_shared<NSObject>())}),
      inserted({aMenu}),  // not tracked
      inserted({instance(mainAppBundleIdentifier + "."_text), instance(""_text)}),
  };
  for (const auto& c : changes) change(c);
  std::int64_t other = 0;
  const Dictionary good = inserted({aMain});
  for (void* context : {static_cast<void*>(nullptr), static_cast<void*>(&other)}) {
    listener->observeValueForKeyPath({}, nullptr, &good, context);
  }
  EXPECT_EQ(asked, Strings{});
  EXPECT_EQ(listener->launchedApps(), (Counts{{main, 0}}));
  change(good);
  EXPECT_EQ(delegate->calls, Strings{"launch of main"});
}

TEST_F(AppLaunchTerminationListenerTest, CountsOnWithoutADelegateAndHoldsItWeakly) {
  listener->setLaunchedApps({{main, 0}});
  running[mainAppBundleIdentifier] = 2;
  auto passing = std::make_shared<Delegate>();
  listener->setDelegate(passing);
  passing.reset();
  EXPECT_EQ(listener->delegate(), nullptr);
  change(inserted({aMain}));
  EXPECT_EQ(listener->launchedApps(), (Counts{{main, 2}}));
  listener->setDelegate(delegate);
  change(inserted({aMain}));
  EXPECT_EQ(delegate->calls, Strings{});
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
