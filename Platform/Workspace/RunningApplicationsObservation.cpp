#include "Platform/Workspace/RunningApplicationsObservation.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/KeyValueObserving.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Platform/Runtime/Value.h"
#include "Platform/Workspace/CheckIns.h"

namespace Platform {
namespace {

const Text& keyPath = *new Text("runningApplications"_text);  // never destroyed

// The delays double: ten looks within ten seconds.
constexpr auto firstDelay = std::chrono::milliseconds(10);
constexpr int mostLooks = 10;

}  // namespace

// Runs on `queue` once resumed; before, on its maker's thread.
class RunningApplicationsObservation::State final
    : public ReadinessHandler,
      public std::enable_shared_from_this<RunningApplicationsObservation::State> {
 public:
  using Instance = std::shared_ptr<NSRunningApplication>;

  State(std::weak_ptr<NSObject> observer, void* context)
      : observer_(std::move(observer)), context_(context) {}

  // False when there is nothing to be watched.
  bool begin() {
    const auto folder = CheckIns::folder();
    if (!folder || !inotify_.isValid()) return false;
    folder_ = *folder;
    const int watched =
        ::inotify_add_watch(inotify_.get(), folder_.c_str(),
                            IN_MOVED_TO | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
    watch_ = WorkerPool::shared().watch(inotify_.get(), EPOLLIN, weak_from_this());
    if (watched < 0 || !watch_) return false;
    for (const std::string& name : CheckIns::names(folder_)) {
      if (CheckIns::presence(folder_, name) == CheckIns::Presence::running) add(name);
    }
    return true;
  }

  std::vector<Instance> initialApplications() const {
    std::vector<Instance> instances;
    for (const auto& [name, instance] : running_) instances.push_back(instance);
    return instances;
  }

  void resume() {
    queue_->async([self = shared_from_this()] {
      self->doubtKnown();
      self->readEvents();
    });
  }

  void end() {
    const WorkerPool::BlockingRegion waiting;
    const std::lock_guard lock(delivery_);
    ended_ = true;
  }

  void ready(std::uint32_t) override {
    if (reading_.exchange(true)) return;
    queue_->async([self = shared_from_this()] { self->readEvents(); });
  }

 private:
  void readEvents() {
    reading_ = false;
    alignas(inotify_event) std::array<char, 16 * 1024> buffer;
    for (;;) {
      const auto size = ::read(inotify_.get(), buffer.data(), buffer.size());
      if (size <= 0) return;
      for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
        const auto* event = reinterpret_cast<const inotify_event*>(&buffer[at]);
        at += sizeof *event + event->len;
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
          doubtKnown();
          for (const std::string& name : CheckIns::names(folder_)) {
            if (!running_.contains(name)) lookAt(name, true);
          }
        } else if (event->len > 0) {
          lookAt(event->name, (event->mask & IN_CLOSE_WRITE) != 0);
        }
      }
    }
  }

  // The ends of these may have gone by without an event for us.
  void doubtKnown() {
    std::vector<std::string> names;
    for (const auto& [name, instance] : running_) names.push_back(name);
    for (const std::string& name : names) lookAt(name, true);
  }

  // Compares one name with what is known of it, and tells the observer of a difference.
  // `mayBeEnding`: it may show as running while it is not, with no event to follow.
  void lookAt(const std::string& name, bool mayBeEnding, int looksBefore = 0) {
    if (!CheckIns::bundleIdentifierOf(name)) return;
    const auto presence = CheckIns::presence(folder_, name);
    const auto known = running_.find(name);
    if (presence == CheckIns::Presence::running && known == running_.end()) {
      tell(NSKeyValueChange::insertion, NSKeyValueChangeNewKey, add(name));
    } else if (presence == CheckIns::Presence::gone && known != running_.end()) {
      const Instance instance = std::move(known->second);
      running_.erase(known);
      tell(NSKeyValueChange::removal, NSKeyValueChangeOldKey, instance);
    }
    const bool settled = presence == CheckIns::Presence::gone ||
                         (presence == CheckIns::Presence::running && !mayBeEnding);
    if (settled || looksBefore == mostLooks) return;
    WorkerPool::shared().after(firstDelay * (1 << looksBefore), queue_,
                               [weak = weak_from_this(), name, mayBeEnding, looksBefore] {
                                 const auto self = weak.lock();
                                 if (self) self->lookAt(name, mayBeEnding, looksBefore + 1);
                               });
  }

  Instance add(const std::string& name) {
    const auto instance =
        std::make_shared<NSRunningApplication>(CheckIns::bundleIdentifierOf(name));
    running_.emplace(name, instance);
    return instance;
  }

  void tell(NSKeyValueChange kind, const Text& key, const Instance& instance) {
    const std::lock_guard lock(delivery_);
    if (ended_) return;
    // Let go of before the lock: the observer may end the observation, at the latest when it dies.
    const std::shared_ptr<NSObject> observer = observer_.lock();
    if (!observer) return;
    Dictionary change;
    change[NSKeyValueChangeKindKey] = static_cast<std::uint64_t>(kind);
    Array changed;
    changed.emplace_back(instance);
    change[key] = std::move(changed);
    NSRunningApplication::told_ = &running_;
    observer->observeValueForKeyPath(keyPath, nullptr, &change, context_);
    NSRunningApplication::told_ = nullptr;
  }

  const std::weak_ptr<NSObject> observer_;
  void* const context_;
  const dispatch_queue_t queue_ =
      dispatch_queue_create("gantrel.RunningApplications", DISPATCH_QUEUE_SERIAL);
  const UniqueFd inotify_{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
  Watch watch_;  // after the descriptor that it must not outlive
  std::string folder_;
  NSRunningApplication::Instances running_;
  // Whether a task that will read all events is in the queue, or will be once resumed.
  std::atomic<bool> reading_ = true;

  // Held while the observer is called, which may end the observation.
  std::recursive_mutex delivery_;
  // Protected by delivery_:
  bool ended_ = false;
};

RunningApplicationsObservation::RunningApplicationsObservation(std::weak_ptr<NSObject> observer,
                                                               void* context)
    : state_(std::make_shared<State>(std::move(observer), context)) {
  if (!state_->begin()) state_.reset();
}

RunningApplicationsObservation::~RunningApplicationsObservation() {
  if (state_) state_->end();
}

std::vector<std::shared_ptr<NSRunningApplication>>
RunningApplicationsObservation::initialApplications() const {
  return state_ ? state_->initialApplications() : std::vector<State::Instance>();
}

void RunningApplicationsObservation::resume() {
  if (state_) state_->resume();
}

}  // namespace Platform
