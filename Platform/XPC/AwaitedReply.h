// AwaitedReply: a call's answer as a result, waited for on the calling thread.
//
//   const auto answer = awaitReply<Text>([&](Reply<Text> reply) { proxy->greet(name, reply); });
//
// Any implementer of an interface will do as the proxy. One of a connection reads the answer on the
// calling thread, whether or not it is a waiting one, also when it is called by another that passes
// its calls on: no thread is switched to, so this is safe on any thread, also inside a handler of
// that very connection.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

// The waiting, without the answer's type.
class AwaitedReply {
 public:
  using Limit = std::optional<std::chrono::milliseconds>;  // none: without end

  // While one lives, calls through proxies wait on this thread, each for `limit` at most.
  class Scope {
   public:
    explicit Scope(Limit limit);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    const Scope* const outer_;
    const Limit limit_;
    friend class AwaitedReply;
  };
  static bool isWaitingHere();
  static Limit limitHere();  // none outside

  AwaitedReply() = default;
  AwaitedReply(const AwaitedReply&) = delete;
  AwaitedReply& operator=(const AwaitedReply&) = delete;

  // Once, on any thread, as the last that is done with this object.
  void end();

  // Both on the thread that made it. False when it has not ended within the limit, or may not be
  // waited for so long: then it still may.
  bool endsWithin(Limit limit);
  void waitForEnd();

 private:
  const std::thread::id waiter_ = std::this_thread::get_id();
  bool hasEndedHere_ = false;  // on the waiter's thread, which alone reads and writes it
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;  // elsewhere; protected by mutex_
};

// None when the reply block went without having been called, or not within the limit.
template <class Value, class Call>
std::optional<Value> awaitReply(Call call, AwaitedReply::Limit limit = std::nullopt) {
  struct Awaited : AwaitedReply {
    std::optional<Value> value;
  };
  // Whoever takes the awaited out of its block, which only one can, ends it, or gives it up.
  class Block final : public Reply<Value>::Block {
   public:
    explicit Block(Awaited& awaited) : awaited_(&awaited) {}
    ~Block() override {
      if (Awaited* const awaited = take()) awaited->end();
    }
    void call(Value value) override {
      Awaited* const awaited = take();
      if (!awaited) return;
      awaited->value = std::move(value);
      awaited->end();
    }
    Awaited* take() { return awaited_.exchange(nullptr); }

   private:
    std::atomic<Awaited*> awaited_;
  };
  Awaited awaited;
  std::weak_ptr<Block> weakBlock;
  {
    const AwaitedReply::Scope scope(limit);
    auto block = std::make_shared<Block>(awaited);
    weakBlock = block;
    call(Reply<Value>(std::move(block)));
  }
  if (!awaited.endsWithin(limit)) {
    const auto block = weakBlock.lock();
    if (block && block->take()) return std::nullopt;
    awaited.waitForEnd();
  }
  return std::move(awaited.value);
}

}  // namespace Platform
