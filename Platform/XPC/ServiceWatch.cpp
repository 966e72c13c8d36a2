#include "Platform/XPC/ServiceWatch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "Platform/XPC/NamedService.h"

namespace Platform {
namespace {

constexpr auto untilItListens = std::chrono::milliseconds(50);

}  // namespace

std::shared_ptr<ServiceWatch> ServiceWatch::start(const Text& name, dispatch_queue_t queue,
                                                  std::function<void()> onAppearance) {
  const auto path = namedServicePath(name);
  if (!path) return nullptr;
  const std::filesystem::path place(*path);
  const std::shared_ptr<ServiceWatch> self(
      new ServiceWatch(place.filename(), std::move(queue), std::move(onAppearance)));
  self->inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!self->inotify_.isValid() ||
      ::inotify_add_watch(self->inotify_.get(), place.parent_path().c_str(),
                          IN_MOVED_TO | IN_CREATE | IN_ONLYDIR) < 0) {
    return nullptr;
  }
  self->watch_ = WorkerPool::shared().watch(self->inotify_.get(), EPOLLIN, self);
  return self->watch_ ? self : nullptr;
}

void ServiceWatch::ready(std::uint32_t) {
  queue_->async([self = shared_from_this()] { self->readEvents(); });
}

void ServiceWatch::readEvents() {
  alignas(inotify_event) char buffer[4096];
  bool isReady = false;
  bool isMade = false;
  for (;;) {
    const ssize_t count = ::read(inotify_.get(), buffer, sizeof buffer);
    if (count <= 0) break;
    for (const char* next = buffer; next < buffer + count;) {
      inotify_event event;
      std::memcpy(&event, next, sizeof event);
      const char* const eventName = next + sizeof event;
      // What overflowed may have been it.
      const bool isIt =
          (event.mask & IN_Q_OVERFLOW) != 0 || (event.len != 0 && fileName_ == eventName);
      if (isIt) ((event.mask & IN_CREATE) != 0 ? isMade : isReady) = true;
      next = eventName + event.len;
    }
  }
  if (isReady) onAppearance_();
  if (isMade) {
    WorkerPool::shared().after(untilItListens, queue_, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->onAppearance_();
    });
  }
}

}  // namespace Platform
