#include "Platform/XPC/Calls.h"

#include <gtest/gtest.h>

#include <atomic>

#include "Platform/Dispatch/WorkerPool.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

class Oracle {
 public:
  virtual ~Oracle() = default;
  virtual void divide(std::int64_t number, std::int64_t by,
                      Reply<std::int64_t, std::int64_t> reply) = 0;
  virtual void knows(const Text& text, Reply<bool> reply) = 0;  // answers all that waited before
  virtual void wait(Reply<> reply) = 0;

  class Proxy;
  static consteval auto protocol() {
    return Protocol("Oracle", method<&Oracle::divide>("divide:by:reply:"),
                    method<&Oracle::knows>("knows:reply:"), method<&Oracle::wait>("wait:"));
  }
};

class Oracle::Proxy final : public RemoteProxy<Oracle> {
  using RemoteProxy::RemoteProxy;
  void divide(std::int64_t number, std::int64_t by,
              Reply<std::int64_t, std::int64_t> reply) override {
    send<&Oracle::divide>(number, by, reply);
  }
  void knows(const Text& text, Reply<bool> reply) override { send<&Oracle::knows>(text, reply); }
  void wait(Reply<> reply) override { send<&Oracle::wait>(reply); }
};

class Delphi final : public NSObject, public Oracle, public NSXPCListenerDelegate {
  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Oracle>());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }
  void divide(std::int64_t number, std::int64_t by,
              Reply<std::int64_t, std::int64_t> reply) override {
    if (by != 0) reply(number / by, number % by);
  }
  void knows(const Text& text, Reply<bool> reply) override {
    reply(!text.isEmpty());
    for (const auto& answer : std::exchange(waiting_, {})) answer();
  }
  void wait(Reply<> reply) override { waiting_.push_back(std::move(reply)); }

  std::vector<Reply<>> waiting_;
};

static_assert(Detail::fits<&Oracle::divide, int, const std::int64_t&>());
static_assert(!Detail::fits<&Oracle::divide, double, int>());
static_assert(!Detail::fits<&Oracle::divide, std::uint64_t, int>());
static_assert(!Detail::fits<&Oracle::divide, int>() &&
              !Detail::fits<&Oracle::knows, const char*>());
static_assert(!std::constructible_from<Value, const char*> &&
              !std::constructible_from<Value, char>);
static_assert(!Detail::Fitting<std::optional<int>, double> &&
              !Detail::Fitting<int, std::atomic<double>&>);
static_assert(Detail::Fitting<std::optional<int>, std::nullopt_t>);
static_assert(!std::invocable<const Reply<bool>&, const char*> &&
              !std::invocable<const Reply<int>&, char>);
static_assert(std::invocable<const Reply<std::optional<double>>&, int>);

// The least that a coroutine needs: it begins at once, and its frame goes at its end.
struct Coroutine {
  struct promise_type {
    Coroutine get_return_object() {
      return {std::coroutine_handle<promise_type>::from_promise(*this)};
    }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
  std::coroutine_handle<promise_type> handle;
};

class Calls : public testing::Test {
 protected:
  Calls() {
    listener->setDelegate(delphi);
    listener->resume();
    connection->resume();
  }

  TestSupport::PrivateRuntimeDirectory directory;
  std::shared_ptr<Delphi> delphi = std::make_shared<Delphi>();
  std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  std::shared_ptr<NSXPCConnection> connection =
      NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
};

TEST_F(Calls, GiveValuesOrAnErrorToCoroutinesOnTheConnectionsQueue) {
  std::promise<void> done;
  const auto coroutine = [&]() -> Coroutine {
    const auto quotient = co_await call<&Oracle::divide>(connection, 17, 5);
    EXPECT_TRUE(quotient && WorkerPool::isWorker());
    EXPECT_EQ(*quotient, std::tuple(3, 2));
    const auto known = co_await call<&Oracle::knows>(connection, "\u03b1"_text);
    EXPECT_TRUE(known && *known);
    const auto none = co_await call<&Oracle::divide>(connection, 1, 0);
    EXPECT_EQ(none.error(), NSXPCConnectionError::refused);
    connection->invalidate();
    const auto late = co_await call<&Oracle::wait>(connection);
    EXPECT_EQ(late.error(), NSXPCConnectionError::invalid);
    EXPECT_TRUE(WorkerPool::isWorker());
    done.set_value();
  };
  coroutine();
  done.get_future().wait();
}

TEST_F(Calls, GiveValuesOrAnErrorToFutures) {
  auto waited = call<&Oracle::wait>(connection).future();
  EXPECT_TRUE(*call<&Oracle::knows>(connection, "all"_text).future().get());
  EXPECT_TRUE(waited.get());
  EXPECT_EQ(call<&Oracle::divide>(connection, 1, 0).future().get().error(),
            NSXPCConnectionError::refused);
}

TEST_F(Calls, EndWhenTheConnectionIsDropped) {
  std::promise<bool> onQueue;
  const auto coroutine = [&]() -> Coroutine {
    const auto dropped = co_await call<&Oracle::wait>(connection);
    EXPECT_EQ(dropped.error(), NSXPCConnectionError::invalid);
    onQueue.set_value(WorkerPool::isWorker());
  };
  coroutine();
  auto dropped = call<&Oracle::wait>(std::exchange(connection, nullptr)).future();
  EXPECT_EQ(dropped.get().error(), NSXPCConnectionError::invalid);
  EXPECT_TRUE(onQueue.get_future().get());
}

TEST_F(Calls, LetACoroutineBeDestroyedWhileItWaits) {
  const auto coroutine = [](std::shared_ptr<NSXPCConnection> own) -> Coroutine {
    co_await call<&Oracle::wait>(std::move(own));
    ADD_FAILURE() << "was destroyed";
  };
  const Coroutine waiting = coroutine(connection);
  connection->remoteObjectProxy<Oracle>()->knows("first"_text,
                                                 [=](bool) { waiting.handle.destroy(); });
  // What answers this one comes after what would have resumed the other.
  EXPECT_TRUE(call<&Oracle::knows>(connection, "then"_text).future().get());
}

}  // namespace
}  // namespace Platform
