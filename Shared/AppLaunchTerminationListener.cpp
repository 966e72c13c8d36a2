#include "Shared/AppLaunchTerminationListener.h"

#include <utility>
#include <vector>

#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Workspace/NSRunningApplication.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

using Applications = std::vector<std::shared_ptr<NSRunningApplication>>;

const Value* find(const Dictionary& dictionary, const Text& key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

// The applications that a change lists as inserted or removed; none when it is of another form.
Applications changedApplications(const Dictionary& change) {
  const Value* const kind = find(change, NSKeyValueChangeKindKey);
  const auto number = kind ? kind->asUnsigned() : std::nullopt;
  const Value* list = nullptr;
  if (number == static_cast<std::uint64_t>(NSKeyValueChange::removal)) {
    list = find(change, NSKeyValueChangeOldKey);
  } else if (number == static_cast<std::uint64_t>(NSKeyValueChange::insertion)) {
    list = find(change, NSKeyValueChangeNewKey);
  }
  const Array* const array = list ? list->asArray() : nullptr;
  if (!array) return {};
  Applications applications;
  for (const Value& element : *array) {
    applications.push_back(element.asObject<NSRunningApplication>());
    if (!applications.back()) return {};
  }
  return applications;
}

}  // namespace

AppLaunchTerminationListener::AppLaunchTerminationListener()
    : AppLaunchTerminationListener([](const Text& identifier) {
        return static_cast<std::int64_t>(
            NSRunningApplication::runningApplicationsWithBundleIdentifier(identifier).size());
      }) {}

AppLaunchTerminationListener::AppLaunchTerminationListener(InstanceCount runningInstances)
    : runningInstances_(std::move(runningInstances)) {}

std::shared_ptr<AppLaunchTerminationListenerDelegate> AppLaunchTerminationListener::delegate()
    const {
  return delegate_.lock();
}

void AppLaunchTerminationListener::setDelegate(
    std::weak_ptr<AppLaunchTerminationListenerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

std::int64_t AppLaunchTerminationListener::kvoContext() const {
  return kvoContext_;
}

void AppLaunchTerminationListener::setKvoContext(std::int64_t value) {
  kvoContext_ = value;
}

const std::unordered_map<GApp, std::int64_t>& AppLaunchTerminationListener::launchedApps() const {
  return launchedApps_;
}

void AppLaunchTerminationListener::setLaunchedApps(std::unordered_map<GApp, std::int64_t> counts) {
  launchedApps_ = std::move(counts);
}

void AppLaunchTerminationListener::observeValueForKeyPath(const std::optional<Text>&,
                                                          const std::shared_ptr<NSObject>&,
                                                          const Dictionary* change, void* context) {
  if (!change || context != &kvoContext_) return;
  for (const auto& application : changedApplications(*change)) {
    const std::optional<Text>& identifier = application->bundleIdentifier();
    if (identifier == mainAppBundleIdentifier) {
      refreshLaunchedApp(GApp::main);
    } else if (identifier == menuAppBundleIdentifier) {
      refreshLaunchedApp(GApp::menu);
    }
  }
}

void AppLaunchTerminationListener::refreshLaunchedApp(GApp app) {
  const auto& before = launchedApps();
  const auto entry = before.find(app);
  if (entry == before.end()) return;
  const std::int64_t last = entry->second;
  const std::int64_t now = runningInstances_(bundleIdentifier(app));
  if (const auto told = now == last ? nullptr : delegate()) {
    now > last ? told->appDidLaunch(app) : told->appDidTerminate(app);
  }
  // Read again: the delegate may have changed the other entries.
  auto counts = launchedApps();
  counts[app] = now;
  setLaunchedApps(std::move(counts));
}

}  // namespace Gantrel_Sync_Helper
