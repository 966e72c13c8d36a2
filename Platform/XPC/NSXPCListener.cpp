#include "Platform/XPC/NSXPCListener.h"

#include <malloc.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/Runtime/Stop.h"
#include "Platform/XPC/AnonymousSocket.h"
#include "Platform/XPC/Connection.h"
#include "Platform/XPC/NamedService.h"
#include "Platform/XPC/Socket.h"

namespace Platform {
namespace {

constexpr int acceptsPerTurn = 16;
constexpr auto retryWhenFull = std::chrono::milliseconds(100);

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Left alone, the C library keeps up to 64 MiB for each of its arenas once it has seen a large
// block. A service that rests gives back what its largest message took.
void returnLargeMemory() {
  ::mallopt(M_MMAP_THRESHOLD, 4 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 16 << 20);
}

}  // namespace

// Accepts on a serial queue of its own.
class NSXPCListener::Acceptor final : public ReadinessHandler,
                                      public std::enable_shared_from_this<Acceptor> {
 public:
  using Socket = std::variant<AnonymousSocket, std::unique_ptr<NamedService>>;

  explicit Acceptor(Socket socket) : socket_(std::move(socket)) {}

  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
    const std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
  }

  void resume(std::weak_ptr<NSXPCListener> listener) {
    const std::lock_guard lock(mutex_);
    if (watch_ || !socket_) return;
    listener_ = std::move(listener);
    watch_ = WorkerPool::shared().watch(descriptor(), EPOLLIN, weak_from_this());
    auto* const named = std::get_if<std::unique_ptr<NamedService>>(&*socket_);
    // A service that nobody can find must not look as if it ran.
    if (named && !(*named)->publish()) stopProcess(ExitStatus::unavailable);
  }

  void stop() {
    const std::lock_guard lock(mutex_);
    watch_ = {};
    socket_.reset();
  }

  void ready(std::uint32_t) override { schedule(); }

 private:
  // Called with mutex_ held.
  int descriptor() const {
    if (const auto* const anonymous = std::get_if<AnonymousSocket>(&*socket_)) {
      return anonymous->socket->get();
    }
    return std::get<std::unique_ptr<NamedService>>(*socket_)->socket();
  }

  void schedule() {
    queue_->async([self = shared_from_this()] { self->acceptSome(); });
  }

  void acceptSome() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
      UniqueFd socket;
      int error = 0;
      std::shared_ptr<NSXPCListenerDelegate> delegate;
      std::shared_ptr<NSXPCListener> listener;
      {
        const std::lock_guard lock(mutex_);
        if (!socket_) return;
        socket.reset(::accept4(descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
        error = errno;
        delegate = delegate_.lock();
        listener = listener_.lock();
      }
      if (!socket.isValid()) {
        if (error == EINTR || error == ECONNABORTED) continue;
        if (error == EAGAIN) return;
        // Full: the waiting connection stays where it is and raises no event, so come back by the
        // clock. Every further connection raises one that leads here: one clock is enough.
        if (std::exchange(retryScheduled_, true)) return;
        WorkerPool::shared().after(retryWhenFull, queue_, [self = shared_from_this()] {
          self->retryScheduled_ = false;
          self->acceptSome();
        });
        return;
      }
      if (!delegate || !listener || !isPeerOfThisUser(socket.get())) continue;
      delegate->listener(listener, std::make_shared<NSXPCConnection>(
                                       std::make_shared<Connection>(std::move(socket))));
    }
    schedule();
  }

  const dispatch_queue_t queue_ = dispatch_queue_create("NSXPCListener", DISPATCH_QUEUE_SERIAL);
  bool retryScheduled_ = false;  // only in tasks on queue_
  std::mutex mutex_;
  // Protected by mutex_:
  std::weak_ptr<NSXPCListenerDelegate> delegate_;
  std::weak_ptr<NSXPCListener> listener_;
  std::optional<Socket> socket_;  // none when stopped
  Watch watch_;                   // after socket_, so that it ends before
};

NSXPCListener::NSXPCListener(std::shared_ptr<Acceptor> acceptor, EndpointRef endpoint)
    : acceptor_(std::move(acceptor)), endpoint_(std::move(endpoint)) {}

std::shared_ptr<NSXPCListener> NSXPCListener::anonymousListener() {
  auto socket = makeAnonymousSocket();
  if (!socket) return nullptr;
  EndpointRef endpoint = socket->endpoint;
  return std::shared_ptr<NSXPCListener>(
      new NSXPCListener(std::make_shared<Acceptor>(*std::move(socket)), std::move(endpoint)));
}

std::shared_ptr<NSXPCListener> NSXPCListener::initWithMachServiceName(const Text& name) {
  raiseDescriptorLimit();
  returnLargeMemory();
  auto service = NamedService::claim(name);
  if (!service) return nullptr;
  removeLeftOverSocketNames();
  return std::shared_ptr<NSXPCListener>(
      new NSXPCListener(std::make_shared<Acceptor>(std::move(service)), nullptr));
}

NSXPCListener::~NSXPCListener() {
  acceptor_->stop();
}

void NSXPCListener::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
  acceptor_->setDelegate(std::move(delegate));
}

void NSXPCListener::resume() {
  acceptor_->resume(std::static_pointer_cast<NSXPCListener>(shared_from_this()));
}

void NSXPCListener::invalidate() {
  acceptor_->stop();
}

std::shared_ptr<NSXPCListenerEndpoint> NSXPCListener::endpoint() const {
  return endpoint_;
}

}  // namespace Platform
