// NSRunningApplication: one running instance of an application of this user.
//
// An application shows itself to the others by asking for its own instance; how that works and what
// counts as running is told in CheckIns.h. An application that offers something to others asks
// after it has made it reachable, so that seeing it launch means that it can be reached.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"

namespace Platform {

// Immutable; keeps its identifier after the process has gone. Any thread.
class NSRunningApplication : public NSObject {
 public:
  explicit NSRunningApplication(std::optional<Text> bundleIdentifier)
      : bundleIdentifier_(std::move(bundleIdentifier)) {}

  // This process's own instance. The first call checks it in, until the process ends. Null when it
  // cannot check in: it has no bundle identifier, or one too long for a file name, folderProblem
  // says what is wrong, or the system has no descriptor or room; a later call tries again.
  static std::shared_ptr<NSRunningApplication> currentApplication();

  // What is wrong with the folder in which applications show themselves, with what mends it, as a
  // sentence for people, without a final full stop and not escaped; empty when nothing is.
  static std::string folderProblem();

  // The instances now running with this bundle identifier, this process's own included; none where
  // they cannot be looked for (folderProblem, no descriptor left). In a call of an observer
  // (RunningApplicationsObservation.h): those that it has been told of, so that it sees each launch
  // and each end by itself, however many there are at once.
  static std::vector<std::shared_ptr<NSRunningApplication>> runningApplicationsWithBundleIdentifier(
      const Text& bundleIdentifier);

  const std::optional<Text>& bundleIdentifier() const { return bundleIdentifier_; }

 private:
  friend class RunningApplicationsObservation;
  using Instances = std::map<std::string, std::shared_ptr<NSRunningApplication>>;  // by check-in

  // What the observer that this thread is calling has been told of; null outside of such a call.
  static thread_local const Instances* told_;

  const std::optional<Text> bundleIdentifier_;
};

}  // namespace Platform
