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
    held.push_back(listener->launchedApps());
  }
  const AppLaunchTerminationListener* listener = nullptr;
  Strings calls;
  std::vector<Counts> held;  // by the listener during each call
};

Value instance(std::optional<Text> identifier) {
  return std::make_shared<NSRunningApplication>(std::move(identifier));
}

class AppLaunchTerminationListenerTest : public testing::Test {
 protected:
  AppLaunchTerminationListenerTest() { delegate->listener = listener.get(); }
  void change(const Dictionary& change) {
    listener->observeValueForKeyPath({}, nullptr, &change, listener->kvoContextAddress());
  }

  const Value aMain = instance(mainAppBundleIdentifier);
  const Value aMenu = instance(menuAppBundleIdentifier);
  std::map<Text, std::int64_t> running;  // what the system would count
  int asked = 0;
  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  const std::shared_ptr<AppLaunchTerminationListener> listener =
      std::make_shared<AppLaunchTerminationListener>([this](const Text& identifier) {
        ++asked;
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
  const Dictionary strangers =
      inserted({instance({}), instance(agentAppBundleIdentifier), instance("x"_text), aMain});
  struct Case {
    Counts before;
    Counts running;
    Dictionary change;
    Strings calls;
    Counts after;
  };
  const Case cases[] = {
      {{{main, 2}}, {{main, 1}}, removed({aMain}), {"end of main"}, {{main, 1}}},
      {{{main, 0}}, {{main, 2}}, inserted({aMain, aMain}), {"launch of main"}, {{main, 2}}},
      {{{main, 1}}, {{main, 1}}, removed({aMain}), {}, {{main, 1}}},
      {{{main, 1}}, {{main, 0}}, inserted({aMain}), {"end of main"}, {{main, 0}}},
      {{{main, 0}}, {{main, 1}}, removed({aMain}), {"launch of main"}, {{main, 1}}},
      {{{main, 0}, {menu, 1}},
       {{main, 1}, {menu, 0}},
       removed({aMenu, aMain}),
       {"end of menu", "launch of main"},
       {{main, 1}, {menu, 0}}},
      {{{main, 0}}, {{main, 1}}, strangers, {"launch of main"}, {{main, 1}}},
      // Only what is tracked is counted, and only what the change names.
      {{}, {{main, 1}}, inserted({aMain}), {}, {}},
      {{{menu, 0}}, {{main, 1}, {menu, 1}}, inserted({aMain}), {}, {{menu, 0}}},
  };
  listener->setDelegate(delegate);
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    listener->setLaunchedApps(c.before);
    for (const auto& [app, count] : c.running) running[bundleIdentifier(app)] = count;
    delegate->calls.clear();
    delegate->held.clear();
    change(c.change);
    EXPECT_EQ(delegate->calls, c.calls);
    EXPECT_EQ(listener->launchedApps(), c.after);
    for (const Counts& held : delegate->held) EXPECT_NE(held, c.after) << "stored before the call";
  }
}

TEST_F(AppLaunchTerminationListenerTest, IgnoresWhatIsForeignOrMalformedAndHoldsItsDelegateWeakly) {
  listener->setLaunchedApps({{main, 0}});
  running[mainAppBundleIdentifier] = 1;
  for (const Dictionary& c :
       {Dictionary{{NSKeyValueChangeNewKey, Array{aMain}}},
        changeOf("2"_text, NSKeyValueChangeNewKey, Array{aMain}),
        changeOf(-2, NSKeyValueChangeNewKey, Array{aMain}),
        changeOf(4, NSKeyValueChangeNewKey, Array{aMain}),
        changeOf(3, NSKeyValueChangeNewKey, Array{aMain}),
        changeOf(2, NSKeyValueChangeNewKey, aMain), inserted({aMain, Value("x"_text)}),
        inserted({instance(mainAppBundleIdentifier + "."_text)})}) {
    change(c);
  }
  const Dictionary good = inserted({aMain});
  listener->observeValueForKeyPath({}, nullptr, nullptr, listener->kvoContextAddress());
  listener->observeValueForKeyPath({}, nullptr, &good, nullptr);
  EXPECT_EQ(asked, 0);
  listener->setDelegate(delegate);
  delegate.reset();
  EXPECT_EQ(listener->delegate(), nullptr);
  change(good);
  EXPECT_EQ(listener->launchedApps(), (Counts{{main, 1}})) << "counts on without a delegate";
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
