// RunningApplicationsObservation: tells an observer of each application that launches or ends.
//
// The observer's observeValueForKeyPath is called with the key path "runningApplications", no
// object, the context given here, and a change of kind insertion or removal that lists the
// instances (NSRunningApplication) under the new or the old key. A removal lists the same objects
// as the insertion before it did. During the call NSRunningApplication lists what the observer has
// been told of.
//
// An observer that counts starts like this: make the observation, take the instances that it begins
// with, resume. Then nothing is missed or told twice.
//
// No polling: the kernel tells of changes in the folder of check-ins (CheckIns.h). It tells that a
// file was closed just before it drops the lock, and it forgets events when too many wait; so after
// the sign of an end, and after looking through the whole folder, an instance that still shows as
// running is looked at again a few times within ten seconds.
#pragma once

#include <memory>
#include <vector>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Workspace/NSRunningApplication.h"

namespace Platform {

// A handle: the observation ends with it. Any thread, one call at a time. The observer is called on
// the observation's own serial queue.
class RunningApplicationsObservation {
 public:
  // Begins to gather changes, relative to the instances that run now. `context` is only handed
  // through.
  RunningApplicationsObservation(std::weak_ptr<NSObject> observer, void* context);
  // Waits for a call of the observer that is under way, save when it is made by that very call;
  // afterwards there is none.
  ~RunningApplicationsObservation();
  RunningApplicationsObservation(const RunningApplicationsObservation&) = delete;
  RunningApplicationsObservation& operator=(const RunningApplicationsObservation&) = delete;

  // False when nothing can be observed: NSRunningApplication::folderProblem says why, or the user
  // has no inotify instance left, or the process no descriptor.
  explicit operator bool() const { return state_ != nullptr; }

  // The instances that changes will be told relative to. Before resume.
  std::vector<std::shared_ptr<NSRunningApplication>> initialApplications() const;

  // Begins to tell the observer, first of what has gathered. Once.
  void resume();

 private:
  class State;
  std::shared_ptr<State> state_;  // null: nothing can be observed
};

}  // namespace Platform
