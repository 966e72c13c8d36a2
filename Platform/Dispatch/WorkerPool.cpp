#include "Platform/Dispatch/WorkerPool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "Platform/Dispatch/MemoryReturn.h"
#include "Platform/Runtime/BackgroundThread.h"
#include "Platform/Runtime/Stop.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto keeperPeriod = std::chrono::milliseconds(10);
constexpr std::size_t mostWorkers = 512;
constexpr std::uint64_t wakeKey = 0;

struct Worker {
  int regions = 0;  // BlockingRegions alive on this thread; only it reads and writes
  // The queue that this worker runs next: what the task at hand has appended to. Only the worker
  // puts one there; the keeper takes it away when the task takes its time.
  std::atomic<DispatchQueue*> next = nullptr;
  // The keeper's period in which its task, or call of a handler, began; 0: in none.
  std::atomic<std::uint64_t> busySince = 0;
  // Written with the pool's lock held.
  std::atomic<bool> countedAsBlocked = false;
};

thread_local Worker* thisWorker = nullptr;

struct DelayedTask {
  dispatch_queue_t queue;
  Task task;
};

}  // namespace

struct WorkerPool::State {
  const UniqueFd epoll{::epoll_create1(EPOLL_CLOEXEC)};
  const UniqueFd wake{::eventfd(0, EFD_CLOEXEC)};
  const UniqueFd timer{::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)};
  std::atomic<MemoryReturn*> memory = nullptr;  // never destroyed
  const std::size_t wanted = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 4);

  std::mutex mutex;
  // Protected by mutex:
  bool started = false;
  std::deque<DispatchQueue*> line;  // but for those that workers have next
  std::list<Worker> workers;
  std::size_t blocked = 0;  // workers in a BlockingRegion, or found stuck by the keeper
  bool timerArmed = false;
  bool activity = false;  // since the keeper last looked
  std::multimap<Clock::time_point, DelayedTask> delayed;
  std::unordered_map<std::uint64_t, std::weak_ptr<ReadinessHandler>> handlers;
  std::uint64_t lastKey = wakeKey;
  // Written with it held, and read without, for a first look:
  std::atomic<std::size_t> inLine = 0;     // queues in the line
  std::atomic<std::size_t> sleeping = 0;   // workers in epoll_wait
  std::atomic<std::uint64_t> period = 1;   // the keeper's count
  std::atomic<std::size_t> lingering = 0;  // workers in a LingeringRegion; written without it

  void start();
  void wakeOne() { ::eventfd_write(wake.get(), 1); }
  void armTimer();
  void addWorker();
  void bringInAnother();
  void work(std::list<Worker>::iterator self);
  void setBlocked(Worker& worker, bool isBlocked);
  void putInLine(DispatchQueue* queue);
  void putNextInLine(Worker& worker);
  void runLine(std::unique_lock<std::mutex>& lock, Worker& self);
  DispatchQueue* runOn(DispatchQueue* queue, Worker& self);
  void keep();
  void startDueTasks(std::unique_lock<std::mutex>& lock);
  void findStuckWorkers();
};

// All methods of State that take no lock are called with mutex held, but for wakeOne.

void WorkerPool::State::start() {
  if (std::exchange(started, true)) return;
  for (std::size_t i = 0; i < wanted; ++i) addWorker();
  if (workers.empty() || !startBackgroundThread("gantrel-keeper", [this] { keep(); })) {
    stopProcess(ExitStatus::software);
  }
}

void WorkerPool::State::armTimer() {
  activity = true;
  if (std::exchange(timerArmed, true)) return;
  itimerspec once{};
  once.it_value.tv_nsec = std::chrono::nanoseconds(keeperPeriod).count();
  ::timerfd_settime(timer.get(), 0, &once, nullptr);
}

void WorkerPool::State::addWorker() {
  if (workers.size() >= mostWorkers) return;
  const auto self = workers.emplace(workers.end());
  if (!startBackgroundThread("gantrel-worker", [this, self] { work(self); })) workers.erase(self);
}

// For when a worker will not come back soon: somebody must be there for what waits and for events.
void WorkerPool::State::bringInAnother() {
  const std::size_t away = blocked + lingering;
  const std::size_t free = workers.size() - std::min(workers.size(), away);
  if (sleeping > 0) {
    if (!line.empty()) wakeOne();
  } else if (free == 0 || (!line.empty() && free < wanted)) {
    addWorker();
  }
}

void WorkerPool::State::setBlocked(Worker& worker, bool isBlocked) {
  if (worker.countedAsBlocked.exchange(isBlocked) == isBlocked) return;
  isBlocked ? ++blocked : --blocked;
}

void WorkerPool::State::putInLine(DispatchQueue* queue) {
  line.push_back(queue);
  inLine = line.size();
}

void WorkerPool::State::putNextInLine(Worker& worker) {
  if (DispatchQueue* const queue = worker.next.exchange(nullptr)) putInLine(queue);
}

void WorkerPool::State::runLine(std::unique_lock<std::mutex>& lock, Worker& self) {
  for (;;) {
    putNextInLine(self);
    if (line.empty()) return;
    DispatchQueue* const queue = line.front();
    line.pop_front();
    inLine = line.size();
    self.busySince = period.load();  // before the keeper can look
    lock.unlock();
    DispatchQueue* const again = runOn(queue, self);
    lock.lock();
    self.busySince = 0;
    setBlocked(self, false);
    putNextInLine(self);
    if (again) putInLine(again);
  }
}

// Runs the queue, and then what its tasks have led to, without the lock: until there is no more of
// it, or others stand in line. Gives the queue that has to go on behind them.
DispatchQueue* WorkerPool::State::runOn(DispatchQueue* queue, Worker& self) {
  for (;;) {
    self.busySince = period.load(std::memory_order_relaxed);
    if (self.countedAsBlocked) {
      const std::lock_guard lock(mutex);
      setBlocked(self, false);
    }
    DispatchQueue* const again = queue->runWaitingTasks() ? queue : nullptr;
    if (inLine.load(std::memory_order_relaxed) != 0) return again;
    queue = self.next.exchange(again);
    if (!queue) queue = self.next.exchange(nullptr);
    if (!queue) return nullptr;
  }
}

void WorkerPool::State::work(std::list<Worker>::iterator self) {
  thisWorker = &*self;
  std::unique_lock lock(mutex);
  for (;;) {
    runLine(lock, *self);
    if (workers.size() - blocked > 2 * wanted) break;
    ++sleeping;
    lock.unlock();
    // One event at a time: the others are for other workers, in case this one's task takes long.
    epoll_event event{};
    const int count = ::epoll_wait(epoll.get(), &event, 1, -1);
    lock.lock();
    --sleeping;
    if (count != 1) continue;
    armTimer();
    const auto handler = handlers.find(event.data.u64);
    if (handler == handlers.end()) continue;
    std::shared_ptr<ReadinessHandler> target = handler->second.lock();
    self->busySince = period.load();
    lock.unlock();
    if (target) target->ready(event.events);
    target.reset();  // it may be the last one, and its watch then ends under the lock
    lock.lock();
    self->busySince = 0;
    setBlocked(*self, false);
  }
  workers.erase(self);
}

void WorkerPool::State::keep() {
  for (;;) {
    std::uint64_t expirations;
    if (::read(timer.get(), &expirations, sizeof expirations) < 0) continue;
    std::unique_lock lock(mutex);
    ++period;
    startDueTasks(lock);
    findStuckWorkers();
    if (!line.empty()) bringInAnother();
    timerArmed = false;
    const bool busy = std::any_of(workers.begin(), workers.end(),
                                  [](const Worker& worker) { return worker.busySince != 0; });
    if (activity || busy || !line.empty() || !delayed.empty()) armTimer();
    activity = false;
  }
}

void WorkerPool::State::startDueTasks(std::unique_lock<std::mutex>& lock) {
  const auto now = Clock::now();
  while (!delayed.empty() && delayed.begin()->first <= now) {
    DelayedTask due = std::move(delayed.extract(delayed.begin()).mapped());
    lock.unlock();
    due.queue->async(std::move(due.task));
    due.queue.reset();
    lock.lock();
  }
}

void WorkerPool::State::findStuckWorkers() {
  for (Worker& worker : workers) {
    if (worker.busySince == 0 || period - worker.busySince < 2) continue;
    setBlocked(worker, true);
    putNextInLine(worker);
  }
  if (workers.size() == blocked) bringInAnother();
}

WorkerPool::WorkerPool() : state_(new State) {
  if (!state_->epoll.isValid() || !state_->wake.isValid() || !state_->timer.isValid()) {
    stopProcess(ExitStatus::software);
  }
  // Edge-triggered, so that each write wakes a worker and nobody has to read the counter back.
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.u64 = wakeKey}};
  ::epoll_ctl(state_->epoll.get(), EPOLL_CTL_ADD, state_->wake.get(), &event);
}

WorkerPool& WorkerPool::shared() {
  static WorkerPool* const instance = new WorkerPool;
  return *instance;
}

bool WorkerPool::isWorker() {
  return thisWorker != nullptr;
}

void WorkerPool::enqueue(DispatchQueue* queue) {
  const bool runsItself = thisWorker != nullptr && thisWorker->regions == 0;
  if (runsItself && !thisWorker->next) {
    thisWorker->next = queue;
    return;
  }
  const std::lock_guard lock(state_->mutex);
  state_->start();
  state_->putInLine(queue);
  if (!runsItself) {
    state_->armTimer();
    state_->bringInAnother();
  }
}

Watch WorkerPool::watch(int fd, std::uint32_t events, std::weak_ptr<ReadinessHandler> handler) {
  std::uint64_t key;
  {
    const std::lock_guard lock(state_->mutex);
    state_->start();
    key = ++state_->lastKey;
    state_->handlers.emplace(key, std::move(handler));
  }
  Watch watch(fd, key);
  epoll_event event{.events = events | EPOLLET, .data = {.u64 = key}};
  if (::epoll_ctl(state_->epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) watch.end();
  return watch;
}

void WorkerPool::after(std::chrono::milliseconds delay, dispatch_queue_t queue, Task task) {
  const std::lock_guard lock(state_->mutex);
  state_->start();
  state_->delayed.emplace(Clock::now() + delay, DelayedTask{std::move(queue), std::move(task)});
  state_->armTimer();
}

void WorkerPool::returnMemoryAfterBursts() {
  state_->memory = new MemoryReturn;
}

WorkerPool::LingeringRegion::LingeringRegion() {
  State& state = *shared().state_;
  ++state.lingering;
  isGranted_ = thisWorker && !thisWorker->next && state.inLine == 0 && state.sleeping != 0;
}

WorkerPool::LingeringRegion::~LingeringRegion() {
  --shared().state_->lingering;
}

WorkerPool::BlockingRegion::BlockingRegion() {
  if (!thisWorker) return;
  State& state = *shared().state_;
  const std::lock_guard lock(state.mutex);
  if (thisWorker->regions++ == 0) {
    state.putNextInLine(*thisWorker);
    state.setBlocked(*thisWorker, true);
    state.bringInAnother();
    if (state.blocked == state.workers.size()) state.setBlocked(*thisWorker, false);
  }
  isGranted_ = thisWorker->countedAsBlocked;
}

WorkerPool::BlockingRegion::~BlockingRegion() {
  if (!thisWorker || --thisWorker->regions != 0) return;
  State& state = *shared().state_;
  const std::lock_guard lock(state.mutex);
  state.setBlocked(*thisWorker, false);
  // Its task begins anew as far as the keeper is concerned.
  thisWorker->busySince = state.period.load();
}

Watch::Watch(Watch&& other) noexcept : fd_(std::exchange(other.fd_, -1)), key_(other.key_) {}

Watch& Watch::operator=(Watch&& other) noexcept {
  if (this != &other) {
    end();
    fd_ = std::exchange(other.fd_, -1);
    key_ = other.key_;
  }
  return *this;
}

Watch::~Watch() {
  end();
}

void Watch::setEvents(std::uint32_t events) {
  epoll_event event{.events = events | EPOLLET, .data = {.u64 = key_}};
  ::epoll_ctl(WorkerPool::shared().state_->epoll.get(), EPOLL_CTL_MOD, fd_, &event);
}

void Watch::end() {
  if (fd_ < 0) return;
  WorkerPool::State& state = *WorkerPool::shared().state_;
  ::epoll_ctl(state.epoll.get(), EPOLL_CTL_DEL, std::exchange(fd_, -1), nullptr);
  std::weak_ptr<ReadinessHandler> handler;  // freed after the lock
  {
    const std::lock_guard lock(state.mutex);
    const auto found = state.handlers.find(key_);
    if (found == state.handlers.end()) return;
    handler = std::move(found->second);
    state.handlers.erase(found);
  }
  if (MemoryReturn* const memory = state.memory) memory->expect();
}

}  // namespace Platform
