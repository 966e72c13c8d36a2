#include "Platform/Workspace/NSRunningApplication.h"

#include <mutex>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Workspace/CheckIns.h"

namespace Platform {

thread_local const NSRunningApplication::Instances* NSRunningApplication::told_ = nullptr;

std::shared_ptr<NSRunningApplication> NSRunningApplication::currentApplication() {
  static std::mutex mutex;
  static std::shared_ptr<NSRunningApplication> current;
  const std::lock_guard lock(mutex);
  if (current) return current;
  const std::optional<Text> identifier = NSBundle::mainBundle().bundleIdentifier();
  if (!identifier) return nullptr;
  UniqueFd checkIn = CheckIns::checkIn(*identifier);
  if (!checkIn.isValid()) return nullptr;
  // Open until the very end: it is the process's end that closes it.
  checkIn.release();
  return current = std::make_shared<NSRunningApplication>(identifier);
}

std::string NSRunningApplication::folderProblem() {
  return CheckIns::folderProblem();
}

std::vector<std::shared_ptr<NSRunningApplication>>
NSRunningApplication::runningApplicationsWithBundleIdentifier(const Text& bundleIdentifier) {
  std::vector<std::shared_ptr<NSRunningApplication>> found;
  if (told_) {
    for (const auto& [checkIn, instance] : *told_) {
      if (instance->bundleIdentifier() == bundleIdentifier) found.push_back(instance);
    }
    return found;
  }
  const auto folder = CheckIns::folder();
  if (!folder) return found;
  for (const std::string& name : CheckIns::names(*folder)) {
    if (CheckIns::bundleIdentifierOf(name) == bundleIdentifier &&
        CheckIns::presence(*folder, name) == CheckIns::Presence::running) {
      found.push_back(std::make_shared<NSRunningApplication>(bundleIdentifier));
    }
  }
  return found;
}

}  // namespace Platform
