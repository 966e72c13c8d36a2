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

constexpr auto main = GApp::main, menu = GApp::menu, agent = GApp::agent;

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
    Counts before;
    Counts running;
    Dictionary change;
    Strings calls;
    Counts after;
  };
  const Case cases[] = {
      {{{main, 0}}, {{main, 1}}, inserted({aMain}), {"launch of main"}, {{main, 1}}},
      {{{main, 1}}, {{main, 2}}, inserted({aMain}), {"launch of main"}, {{main, 2}}},
      {{{main, 2}}, {{main, 1}}, removed({aMain}), {"end of main"}, {{main, 1}}},
      {{{menu, 1}}, {{menu, 0}}, removed({aMenu}), {"end of menu"}, {{menu, 0}}},
      {{{main, 0}}, {{main, 2}}, inserted({aMain, aMain}), {"launch of main"}, {{main, 2}}},
      {{{main, 1}}, {{main, 1}}, removed({aMain}), {}, {{main, 1}}},
      {{{main, 1}}, {{main, 0}}, inserted({aMain}), {"end of main"}, {{main, 0}}},
      {{{main, 0}}, {{main, 1}}, removed({aMain}), {"launch of main"}, {{main, 1}}},
      {{{main, 0}, {menu, 1}},
       {{main, 1}, {menu, 0}},
       removed({aMenu, aMain}),
       {"end of menu", "launch of main"},
       {{main, 1}, {menu, 0}}},
      {{{main, 0}},
       {{main, 1}},
       inserted({instance({}), instance(agentAppBundleIdentifier), instance("x"_text), aMain}),
       {"launch of main"},
       {{main, 1}}},
      // Only what is tracked is counted, and only what the change names.
      {{}, {{main, 1}}, inserted({aMain}), {}, {}},
      {{{menu, 0}}, {{main, 1}, {menu, 1}}, inserted({aMain}), {}, {{menu, 0}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    listener->setLaunchedApps(c.before);
    for (const auto& [app, count] : c.running) running[bundleIdentifier(app)] = count;
    delegate->calls.clear();
    delegate->held.clear();
    change(c.change);
    EXPECT_EQ(delegate->calls, c.calls);
    EXPECT_EQ(listener->launchedApps(), c.after);
    if (!c.calls.empty()) {
      EXPECT_EQ(delegate->held[0], c.before) << "stored before the call";
    }
  }
}

TEST_F(AppLaunchTerminationListenerTest, IgnoresWhatIsForeignOrMalformed) {
  listener->setLaunchedApps({{main, 0}, {menu, 0}});
  running[mainAppBundleIdentifier] = 1;
  const Text& newKey = NSKeyValueChangeNewKey;
  const std::optional<Dictionary> changes[] = {
      std::nullopt,
      Dictionary{},
      Dictionary{{newKey, Array{aMain}}},
      changeOf("2"_text, newKey, Array{aMain}),
      changeOf(2.0, newKey, Array{aMain}),
      changeOf(true, newKey, Array{aMain}),
      changeOf(-2, newKey, Array{aMain}),
      changeOf(0, newKey, Array{aMain}),
      changeOf(1, newKey, Array{aMain}),
      changeOf(4, newKey, Array{aMain}),
      changeOf(5, newKey, Array{aMain}),
      changeOf(3, newKey, Array{aMain}),
      changeOf(2, NSKeyValueChangeOldKey, Array{aMain}),
      changeOf(2, newKey, aMain),
      inserted({aMain, Value("x"_text)}),
      inserted({aMain, Value(std::make_shared<NSObject>())}),
      inserted({instance({}), instance(agentAppBundleIdentifier),
                instance(mainAppBundleIdentifier + "."_text), instance(""_text)}),
  };
  for (const auto& c : changes) change(c);
  std::int64_t other = 0;
  const Dictionary good = inserted({aMain});
  for (void* context : {static_cast<void*>(nullptr), static_cast<void*>(&other)}) {
    listener->observeValueForKeyPath({}, nullptr, &good, context);
  }
  EXPECT_EQ(asked, Strings{});
  EXPECT_EQ(listener->launchedApps(), (Counts{{main, 0}, {menu, 0}}));
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

TEST_F(AppLaunchTerminationListenerTest, GoesThroughItsOverridableOperations) {
  struct Counting final : AppLaunchTerminationListener {
    using AppLaunchTerminationListener::AppLaunchTerminationListener;
    const Counts& launchedApps() const override { return counts; }
    void setLaunchedApps(Counts now) override { counts = std::move(now); }
    std::shared_ptr<AppLaunchTerminationListenerDelegate> delegate() const override { return to; }
    void refreshLaunchedApp(GApp app) override {
      ++refreshed;
      AppLaunchTerminationListener::refreshLaunchedApp(app);
    }
    Counts counts{{main, 0}};
    std::shared_ptr<Delegate> to = std::make_shared<Delegate>();
    int refreshed = 0;
  };
  Counting counting([](const Text&) { return 1; });
  counting.to->listener = &counting;
  counting.setKvoContext(7);
  EXPECT_EQ(counting.kvoContext(), 7);
  const Dictionary change = inserted({aMain, aMain, aMenu});
  counting.observeValueForKeyPath({}, nullptr, &change, counting.kvoContextAddress());
  EXPECT_EQ(counting.refreshed, 3);
  EXPECT_EQ(counting.counts, (Counts{{main, 1}}));
  EXPECT_EQ(counting.to->calls, Strings{"launch of main"});
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
