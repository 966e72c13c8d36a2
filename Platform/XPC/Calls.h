// Calls as values: what a method of any interface answers, in a coroutine or as a future, instead
// of by a reply block and an error handler.
//
//   const auto answer = co_await call<&Greeting::greet>(connection, "Ada"_text);
//   if (answer) use(*answer);  // a Text
//
//   std::future<CallResult<Text>> later = call<&Greeting::greet>(connection, "Ada"_text).future();
//
// A coroutine is resumed on the connection's queue, whatever it was on before. Each call ends,
// once: with the answer, with an error, or with `invalid` when the connection is dropped, which a
// call does not keep alive.
//
// A coroutine may be destroyed while it waits, on the connection's queue: in a handler or reply
// block, or by another coroutine that was resumed there. From anywhere else that is a race with its
// resumption. To wait for a future on the connection's own queue is to wait for ever.
#pragma once

#include <concepts>
#include <coroutine>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Platform/XPC/NSXPCConnection.h"

namespace Platform {

// What a call came to: the value of type `T` that was answered, or an error. A value.
template <class T>
class CallResult {
 public:
  CallResult(T value) : value_(std::move(value)) {}
  CallResult(NSXPCConnectionError error) : error_(error) {}

  explicit operator bool() const { return value_.has_value(); }
  std::optional<NSXPCConnectionError> error() const { return error_; }
  // Without an answer these stop the process.
  T& operator*() & noexcept { return value_.value(); }
  const T& operator*() const& noexcept { return value_.value(); }
  T&& operator*() && noexcept { return std::move(value_).value(); }
  T* operator->() noexcept { return &**this; }
  const T* operator->() const noexcept { return &**this; }

 private:
  std::optional<T> value_;
  std::optional<NSXPCConnectionError> error_;  // one of the two
};

namespace Detail {

// What a reply block is given, as one type: a tuple unless it is exactly one.
template <class T>
struct AnswerOf;
template <class... Values>
struct AnswerOf<Reply<Values...>> {
  using Type = std::tuple<std::remove_cvref_t<Values>...>;
};
template <class Value>
struct AnswerOf<Reply<Value>> {
  using Type = std::remove_cvref_t<Value>;
};

template <class To, class From>
concept Fitting =
    std::convertible_to<From, To> && !isOfOtherKind<BareOf<To>, BareOf<From>> &&
    (!std::is_arithmetic_v<BareOf<To>> || std::same_as<BareOf<From>, std::nullopt_t> ||
     requires(BareOf<From> from) { BareOf<To>{from}; });

// Whether a call of the method takes these.
template <auto Member, class... Given>
consteval bool fits() {
  using Traits = MethodTraits<decltype(Member)>;
  if constexpr (sizeof...(Given) == Traits::valueCount) {
    return []<std::size_t... I>(std::index_sequence<I...>) {
      return (Fitting<std::tuple_element_t<I, typename Traits::ArgumentTuple>, Given> && ...);
    }
    (std::index_sequence_for<Given...>());
  } else {
    return false;
  }
}

// Ends one call, once: when nobody has, as the last of its blocks goes.
template <class Result>
class Ending {
 public:
  explicit Ending(std::function<void(Result)> end) : end_(std::move(end)) {}
  Ending(const Ending&) = delete;
  ~Ending() { operator()(NSXPCConnectionError::invalid); }
  void operator()(Result result) {
    if (const auto end = std::exchange(end_, nullptr)) end(std::move(result));
  }

 private:
  std::function<void(Result)> end_;
};

}  // namespace Detail

// A call that is made when it is awaited, or made into a future: one of them, once.
template <auto Member>
class [[nodiscard]] Call {
  using Traits = Detail::MethodTraits<decltype(Member)>;
  static_assert(Traits::hasReply, "a method without a reply block has no answer to wait for");
  using ReplyBlock = std::tuple_element_t<Traits::valueCount, typename Traits::ArgumentTuple>;
  using Answer = typename Detail::AnswerOf<ReplyBlock>::Type;

 public:
  using Result = CallResult<Answer>;

  // All of the method's arguments; that in place of the reply block is set here.
  Call(std::shared_ptr<NSXPCConnection> connection, typename Traits::ArgumentTuple arguments)
      : connection_(std::move(connection)), arguments_(std::move(arguments)) {}
  Call(Call&&) = default;
  ~Call() {
    if (waiting_) waiting_->coroutine = nullptr;
  }

  std::future<Result> future() && {
    const auto promise = std::make_shared<std::promise<Result>>();
    auto result = promise->get_future();
    make(std::move(connection_), std::move(arguments_),
         [promise](Result value) { promise->set_value(std::move(value)); });
    return result;
  }

  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> coroutine) {
    waiting_ = std::make_shared<Waiting>();
    waiting_->coroutine = coroutine;
    // The coroutine may go on, and this be gone, before `make` returns.
    make(std::move(connection_), std::move(arguments_), [waiting = waiting_](Result result) {
      waiting->result = std::move(result);
      if (waiting->coroutine) waiting->coroutine.resume();
    });
  }
  Result await_resume() { return *std::move(waiting_->result); }

 private:
  struct Waiting {
    std::coroutine_handle<> coroutine;  // null when it has been destroyed
    std::optional<Result> result;
  };

  // The blocks alone hold the ending, and are released where they would be called.
  static void make(std::shared_ptr<NSXPCConnection> connection,
                   typename Traits::ArgumentTuple arguments, std::function<void(Result)> end) {
    using Interface = typename Traits::Interface;
    auto ending = std::make_shared<Detail::Ending<Result>>(std::move(end));
    const auto proxy = connection->template remoteObjectProxyWithErrorHandler<Interface>(
        [ending](NSXPCConnectionError error) { (*ending)(error); });
    connection.reset();
    std::get<Traits::valueCount>(arguments) = [ending = std::move(ending)](auto... values) {
      (*ending)(Answer(std::move(values)...));
    };
    std::apply([&](auto&... values) { (proxy.get()->*Member)(std::move(values)...); }, arguments);
  }

  std::shared_ptr<NSXPCConnection> connection_;
  typename Traits::ArgumentTuple arguments_;
  std::shared_ptr<Waiting> waiting_;  // while it is awaited
};

// A call of the method on the object that the connection's peer exports, which must not be null.
template <auto Member, class... Arguments>
Call<Member> call(std::shared_ptr<NSXPCConnection> connection, Arguments&&... arguments) {
  static_assert(Detail::fits<Member, Arguments...>(),
                "the arguments are the method's, without its reply block, and a number is of the "
                "argument's type or of one that always fits in it");
  return {std::move(connection), {std::forward<Arguments>(arguments)..., nullptr}};
}

}  // namespace Platform
