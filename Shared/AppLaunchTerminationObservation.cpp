#include "Shared/AppLaunchTerminationObservation.h"

#include <algorithm>
#include <utility>

namespace Gantrel_Sync_Helper {

using namespace Platform;

AppLaunchTerminationObservation::AppLaunchTerminationObservation(
    std::shared_ptr<AppLaunchTerminationListener> listener, std::initializer_list<GApp> apps)
    : listener_(std::move(listener)), observation_(listener_, listener_->kvoContextAddress()) {
  const auto running = observation_.initialApplications();
  for (const GApp app : apps) {
    const Text& identifier = bundleIdentifier(app);
    countsAtStart_[app] = std::count_if(running.begin(), running.end(), [&](const auto& instance) {
      return instance->bundleIdentifier() == identifier;
    });
  }
  listener_->startFrom(countsAtStart_);
  observation_.resume();
}

}  // namespace Gantrel_Sync_Helper
