// ServiceWatch: tells when a named service appears.
//
// Whoever serves a name moves its socket to its place once it listens (NamedService.h), so a move
// means that the service is ready. A service manager makes the socket in its place instead, and
// listens a moment later. The kernel tells of both; nothing is asked again and again.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

// Runs on the queue that it was given. It ends with its last owner; a call that is under way may
// still finish.
class ServiceWatch final : public ReadinessHandler,
                           public std::enable_shared_from_this<ServiceWatch> {
 public:
  // Calls `onAppearance` on `queue` each time the service appears from now on. Null when the name
  // has no place (namedServicePath), or the system has no watch to give.
  static std::shared_ptr<ServiceWatch> start(const Text& name, dispatch_queue_t queue,
                                             std::function<void()> onAppearance);

  void ready(std::uint32_t events) override;

 private:
  ServiceWatch(std::string fileName, dispatch_queue_t queue, std::function<void()> onAppearance)
      : fileName_(std::move(fileName)),
        queue_(std::move(queue)),
        onAppearance_(std::move(onAppearance)) {}
  void readEvents();

  const std::string fileName_;
  const dispatch_queue_t queue_;
  const std::function<void()> onAppearance_;
  UniqueFd inotify_;
  Watch watch_;  // after inotify_, so that it ends before
};

}  // namespace Platform
