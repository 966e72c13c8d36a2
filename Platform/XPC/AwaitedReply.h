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

  // True once: then the answer may be written, before `end`. Any thread.
  bool begin();
  void end();
  // Returns after `end`, or when the limit is reached and nobody has begun; then nobody will. Any
  // thread.
  void wait(Limit limit);

 private:
  std::atomic<bool> hasBegun_ = false;
  std::atomic<bool> isOver_ = false;  // set with mutex_ held, for who waits
  std::mutex mutex_;
  std::condition_variable ended_;
};

// None when the reply block went without having been called, or not within the limit.
template <class Value, class Call>
std::optional<Value> awaitReply(Call call, AwaitedReply::Limit limit = std::nullopt) {
  struct Awaited {
    AwaitedReply reply;
    std::optional<Value> value;
  };
  class Block final : public Reply<Value>::Block {
   public:
    explicit Block(std::shared_ptr<Awaited> awaited) : answer_(std::move(awaited)) {}
    ~Block() override {
      if (answer_->reply.begin()) answer_->reply.end();
    }
    void call(Value value) override {
      if (!answer_->reply.begin()) return;
      answer_->value = std::move(value);
      answer_->reply.end();
    }

   private:
    const std::shared_ptr<Awaited> answer_;
  };
  const auto answer = std::make_shared<Awaited>();
  {
    const AwaitedReply::Scope scope(limit);
    call(Reply<Value>(std::make_shared<Block>(answer)));
  }
  answer->reply.wait(limit);
  return std::move(answer->value);
}

}  // namespace Platform
