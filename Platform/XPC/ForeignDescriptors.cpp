#include "Platform/XPC/ForeignDescriptors.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <utility>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/BackgroundThread.h"

namespace Platform {
namespace {

// So many senders' descriptors may block their closing before the next sender's wait.
constexpr std::size_t mostClosers = 6;

std::atomic<std::size_t> heldDescriptors = 0;

struct Batch {
  UniqueFds descriptors;
  std::shared_ptr<void> whileClosing;

  void close() {
    for (UniqueFd& descriptor : descriptors) {
      // What lingers on close is cut short; the sender may have undone it by then, so the thread
      // stays needed. For anything but a socket it does nothing.
      const linger none{};
      if (descriptor.isValid()) {
        ::setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
      }
      descriptor.reset();
    }
    heldDescriptors -= descriptors.size();
    descriptors = {};
    whileClosing.reset();
  }
};

// Its threads come with work and go when there is none.
class Closers {
 public:
  static Closers& shared() {
    static Closers* const instance = new Closers;
    return *instance;
  }

  void add(Batch batch) {
    {
      const std::lock_guard lock(mutex_);
      line_.push_back(std::move(batch));
    }
    startOne();
  }

 private:
  void startOne() {
    {
      const std::lock_guard lock(mutex_);
      if (line_.empty() || threads_ == mostClosers) return;
      ++threads_;
    }
    if (startBackgroundThread("gantrel-closer", [this] { work(); })) return;
    {
      const std::lock_guard lock(mutex_);
      --threads_;
    }
    WorkerPool::shared().after(std::chrono::milliseconds(100), clock_, [this] { startOne(); });
  }

  void work() {
    std::unique_lock lock(mutex_);
    while (!line_.empty()) {
      Batch batch = std::move(line_.front());
      line_.pop_front();
      lock.unlock();
      batch.close();
      lock.lock();
    }
    --threads_;
  }

  const dispatch_queue_t clock_ =
      dispatch_queue_create("ForeignDescriptors", DISPATCH_QUEUE_SERIAL);
  std::mutex mutex_;
  // Protected by mutex_:
  std::deque<Batch> line_;
  std::size_t threads_ = 0;
};

}  // namespace

ForeignDescriptors& ForeignDescriptors::operator=(ForeignDescriptors&& other) noexcept {
  if (this == &other) return *this;
  if (!descriptors_.empty()) close({});
  descriptors_ = std::move(other.descriptors_);
  taken_ = std::exchange(other.taken_, 0);
  return *this;
}

void ForeignDescriptors::add(UniqueFd descriptor) {
  closeGap();
  descriptors_.push_back(std::move(descriptor));
  ++heldDescriptors;
}

void ForeignDescriptors::giveFirst(std::size_t count, ForeignDescriptors& other) {
  if (count == size() && other.size() == 0) {
    other = std::move(*this);
    return;
  }
  for (UniqueFd& next : all().first(count)) other.descriptors_.push_back(std::move(next));
  taken_ += count;
}

void ForeignDescriptors::close(std::shared_ptr<void> whileClosing) {
  if (descriptors_.empty()) return;
  closeGap();
  if (hasUnclaimed()) {
    Closers::shared().add({std::exchange(descriptors_, {}), std::move(whileClosing)});
  } else {
    heldDescriptors -= descriptors_.size();
    descriptors_ = {};
  }
}

void ForeignDescriptors::closeGap() {
  if (taken_ == 0) return;
  UniqueFds rest;
  for (UniqueFd& left : all()) rest.push_back(std::move(left));
  descriptors_ = std::move(rest);
  taken_ = 0;
}

std::size_t ForeignDescriptors::held() {
  return heldDescriptors;
}

}  // namespace Platform
