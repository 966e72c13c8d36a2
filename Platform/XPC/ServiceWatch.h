// ServiceWatch: tells when a named service appears.
//
// Whoever serves a name moves its socket to its place once it listens (NamedService.h), so a move
// means that the service is ready. A service manager makes the socket in its place instead, and
// listens a moment later. The kernel tells of both; nothing is asked again and again.
//
// A user can have few of the kernel's watches, 128 inotify instances by default, so all watches of
// a process share one, which is given back with the last of them. Where none is left, and while
// there is no folder to watch, a slow clock looks instead.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Runtime/Text.h"

namespace Platform {

// Any thread.
class ServiceWatch {
 public:
  // Calls `onAppearance` on `queue` when the service may have appeared, each time from now on.
  ServiceWatch(const Text& name, dispatch_queue_t queue, std::function<void()> onAppearance);
  // Waits for nothing: a call that is in line already still comes.
  ~ServiceWatch();
  ServiceWatch(const ServiceWatch&) = delete;
  ServiceWatch& operator=(const ServiceWatch&) = delete;

 private:
  const std::uint64_t number_;
};

}  // namespace Platform
