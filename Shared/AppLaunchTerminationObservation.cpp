#include "Shared/AppLaunchTerminationObservation.h"

#include <utility>

namespace Gantrel_Sync_Helper {

AppLaunchTerminationObservation::AppLaunchTerminationObservation(
    std::shared_ptr<AppLaunchTerminationListener> listener, std::initializer_list<GApp> apps)
    : listener_(std::move(listener)), observation_(listener_, listener_->kvoContextAddress()) {
  for (const GApp app : apps) countsAtStart_[app] = 0;
  for (const auto& application : observation_.initialApplications()) {
    for (const GApp app : apps) {
      if (application->bundleIdentifier() == bundleIdentifier(app)) ++countsAtStart_[app];
    }
  }
  listener_->setLaunchedApps(countsAtStart_);
  observation_.resume();
}

}  // namespace Gantrel_Sync_Helper
