// AppLaunchTerminationListener: tells its delegate when the main or the menu-bar application gains
// or loses a running instance.
//
// It is a key-value observer of the running applications. A change only says which applications to
// count anew; whether one launched or ended is judged from the count now and the count seen last.
// So changes that come late, twice or together leave the counts right.
//
// AppLaunchTerminationObservation.h starts and stops the observation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/Value.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

// Called by whoever delivers the changes, during the delivery.
class AppLaunchTerminationListenerDelegate {
 public:
  virtual ~AppLaunchTerminationListenerDelegate() = default;
  virtual void appDidLaunch(GApp app) = 0;
  virtual void appDidTerminate(GApp app) = 0;
};

// No lock and no queue: once changes are delivered to it, everything happens where they are
// delivered, one at a time.
class AppLaunchTerminationListener : public Platform::NSObject {
 public:
  // How many instances of the application with this bundle identifier run now.
  using InstanceCount = std::function<std::int64_t(const Platform::Text& bundleIdentifier)>;

  // No delegate, a context of 0, and nothing tracked; counts what the system says is running.
  AppLaunchTerminationListener();
  // The same with another way to count.
  explicit AppLaunchTerminationListener(InstanceCount runningInstances);

  // Null when there is none, or it has gone.
  virtual std::shared_ptr<AppLaunchTerminationListenerDelegate> delegate() const;
  virtual void setDelegate(std::weak_ptr<AppLaunchTerminationListenerDelegate> delegate);

  // The value means nothing; the field's address marks the observations that are this watcher's
  // own.
  virtual std::int64_t kvoContext() const;
  virtual void setKvoContext(std::int64_t value);
  void* kvoContextAddress() { return &kvoContext_; }

  // The number of running instances seen last of each tracked application. Only an application with
  // an entry is tracked.
  virtual const std::unordered_map<GApp, std::int64_t>& launchedApps() const;
  virtual void setLaunchedApps(std::unordered_map<GApp, std::int64_t> counts);

  // Ignores every change that does not carry this watcher's context or does not list running
  // applications as inserted or removed; none is passed on to the base class.
  void observeValueForKeyPath(const std::optional<Platform::Text>& keyPath,
                              const std::shared_ptr<Platform::NSObject>& object,
                              const std::map<Platform::Text, Platform::Value>* change,
                              void* context) override;

  // Counts a tracked application's instances, tells the delegate when there are more or fewer than
  // before, and then stores the count.
  virtual void refreshLaunchedApp(GApp app);

 private:
  std::weak_ptr<AppLaunchTerminationListenerDelegate> delegate_;
  std::int64_t kvoContext_ = 0;
  std::unordered_map<GApp, std::int64_t> launchedApps_;
  const InstanceCount runningInstances_;
};

}  // namespace Gantrel_Sync_Helper
