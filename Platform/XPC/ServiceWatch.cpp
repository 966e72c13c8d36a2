#include "Platform/XPC/ServiceWatch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Platform/XPC/NamedService.h"

namespace Platform {
namespace {

using namespace std::chrono_literals;

constexpr auto clockPeriod = 250ms;
constexpr auto untilItListens = 50ms;
constexpr std::uint32_t appearances = IN_MOVED_TO | IN_CREATE;
constexpr std::uint32_t ends = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

// Which socket stands in a service's place.
using Seen = std::optional<std::tuple<dev_t, ino_t, std::time_t, long>>;

Seen seenAt(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::tuple(status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

// The process's inotify instance. Closing one takes the kernel some 20 ms.
struct Inotify {
  ~Inotify() {
    const WorkerPool::BlockingRegion closing;
    watch = {};
    descriptor.reset();
  }
  UniqueFd descriptor{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
  Watch watch;
};

struct Subscriber {
  Text name;
  dispatch_queue_t queue;
  std::function<void()> onAppearance;
  // The folder of the sockets and the one that it is in, and what is looked for in each.
  std::string fileName = {};
  std::string folderName = {};
  int folder = -1;  // inotify's number; none while the clock looks
  int base = -1;
  Seen seen = {};  // for the clock

  bool isWatched() const { return folder >= 0; }
};

// All watches of the process. Never destroyed. All methods: any thread.
class Hub final : public ReadinessHandler, public std::enable_shared_from_this<Hub> {
 public:
  static Hub& shared() {
    static const auto* const instance = new auto(std::make_shared<Hub>());
    return **instance;
  }

  std::uint64_t add(Subscriber subscriber) {
    const std::lock_guard lock(mutex_);
    haveInotify();
    startWatching(subscriber);
    subscribers_.emplace(++lastNumber_, std::move(subscriber));
    startClock();
    return lastNumber_;
  }

  void remove(std::uint64_t number) {
    decltype(subscribers_)::node_type gone;  // freed after the lock
    const std::lock_guard lock(mutex_);
    gone = subscribers_.extract(number);
    // Closed where nobody waits for it.
    if (subscribers_.empty() && inotify_) queue_->async([given = std::move(inotify_)] {});
  }

  void ready(std::uint32_t) override {
    queue_->async([self = shared_from_this()] { self->readEvents(); });
  }

 private:
  // These are called with mutex_ held.

  void haveInotify() {
    if (inotify_) return;
    auto made = std::make_shared<Inotify>();
    if (!made->descriptor.isValid()) return;
    made->watch = WorkerPool::shared().watch(made->descriptor.get(), EPOLLIN, weak_from_this());
    if (made->watch) inotify_ = std::move(made);
  }

  void startWatching(Subscriber& subscriber) {
    const auto path = namedServicePath(subscriber.name);
    if (!path) return;
    const std::filesystem::path place(*path);
    const std::filesystem::path folder = place.parent_path();
    subscriber.fileName = place.filename();
    subscriber.folderName = folder.filename();
    // Who removes a folder is seen by the folder that it is in: the kernel tells of its end late
    // when somebody still uses it.
    subscriber.base = addWatch(folder.parent_path(), appearances | IN_DELETE | IN_MOVED_FROM);
    subscriber.folder = addWatch(folder, appearances);
    subscriber.seen = seenAt(*path);
  }

  int addWatch(const std::string& folder, std::uint32_t events) {
    if (!inotify_) return -1;
    return ::inotify_add_watch(inotify_->descriptor.get(), folder.c_str(),
                               events | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
  }

  void startClock() {
    const bool isNeeded = std::any_of(subscribers_.begin(), subscribers_.end(),
                                      [](const auto& each) { return !each.second.isWatched(); });
    if (!isNeeded || std::exchange(clockRuns_, true)) return;
    WorkerPool::shared().after(clockPeriod, queue_, [self = shared_from_this()] { self->tick(); });
  }

  static void tell(const Subscriber& subscriber) {
    subscriber.queue->async(subscriber.onAppearance);
  }
  static void tellLater(const Subscriber& subscriber) {
    WorkerPool::shared().after(untilItListens, subscriber.queue, subscriber.onAppearance);
  }

  void take(const inotify_event& event, std::string_view name) {
    for (auto& [number, subscriber] : subscribers_) {
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        tell(subscriber);  // what was lost may have been it
      } else if (event.wd == subscriber.folder && name == subscriber.fileName) {
        (event.mask & IN_CREATE) != 0 ? tellLater(subscriber) : tell(subscriber);
      } else if ((event.wd == subscriber.base && name == subscriber.folderName) ||
                 ((event.wd == subscriber.folder || event.wd == subscriber.base) &&
                  (event.mask & ends) != 0)) {
        // Not looked for at once: that would make the folder again under the hands of whoever
        // removes it.
        subscriber.folder = subscriber.base = -1;
      }
    }
  }

  // These run on queue_, without the lock.

  void readEvents() {
    const std::lock_guard lock(mutex_);
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      const ssize_t count =
          inotify_ ? ::read(inotify_->descriptor.get(), buffer, sizeof buffer) : 0;
      if (count <= 0) break;
      for (const char* next = buffer; next < buffer + count;) {
        inotify_event event;
        std::memcpy(&event, next, sizeof event);
        next += sizeof event;
        take(event, event.len != 0 ? std::string_view(next) : std::string_view());
        next += event.len;
      }
    }
    startClock();
  }

  void tick() {
    const std::lock_guard lock(mutex_);
    clockRuns_ = false;
    haveInotify();
    for (auto& [number, subscriber] : subscribers_) {
      if (subscriber.isWatched()) continue;
      const Seen before = subscriber.seen;
      startWatching(subscriber);
      if (!subscriber.seen || subscriber.seen == before) continue;
      tell(subscriber);
      tellLater(subscriber);
    }
    startClock();
  }

  const dispatch_queue_t queue_ = dispatch_queue_create("ServiceWatch", DISPATCH_QUEUE_SERIAL);

  std::mutex mutex_;
  // Protected by mutex_:
  std::unordered_map<std::uint64_t, Subscriber> subscribers_;
  std::uint64_t lastNumber_ = 0;
  std::shared_ptr<Inotify> inotify_;  // null while nobody watches, or none is left
  bool clockRuns_ = false;
};

}  // namespace

ServiceWatch::ServiceWatch(const Text& name, dispatch_queue_t queue,
                           std::function<void()> onAppearance)
    : number_(Hub::shared().add(
          {.name = name, .queue = std::move(queue), .onAppearance = std::move(onAppearance)})) {}

ServiceWatch::~ServiceWatch() {
  Hub::shared().remove(number_);
}

}  // namespace Platform
