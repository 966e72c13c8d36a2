// AppLaunchTerminationObservation: starts an AppLaunchTerminationListener, and stops it when its
// own life ends.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <unordered_map>

#include "Platform/Workspace/RunningApplicationsObservation.h"
#include "Shared/AppLaunchTerminationListener.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

// From the start on, the listener and its delegate are called on the observation's serial queue and
// belong to it: set the delegate before. Once this is destroyed, which waits for a call under way,
// they are called no more.
class AppLaunchTerminationObservation {
 public:
  // Tracks `apps` (main, menu or both), from the number of their instances that run now.
  AppLaunchTerminationObservation(std::shared_ptr<AppLaunchTerminationListener> listener,
                                  std::initializer_list<GApp> apps);

  // False when nothing can be observed: Platform::NSRunningApplication::folderProblem says why, or
  // the user has no inotify instance left, or the process no descriptor.
  explicit operator bool() const { return static_cast<bool>(observation_); }

  // The counts that the listener started from: whoever waits for an application looks here first,
  // and then needs only to wait for appDidLaunch. Any thread.
  const std::unordered_map<GApp, std::int64_t>& countsAtStart() const { return countsAtStart_; }

 private:
  const std::shared_ptr<AppLaunchTerminationListener> listener_;
  std::unordered_map<GApp, std::int64_t> countsAtStart_;
  Platform::RunningApplicationsObservation observation_;  // last: it ends before the listener may
};

}  // namespace Gantrel_Sync_Helper
