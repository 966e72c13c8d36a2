// Reply: a reply block, which a method of an interface takes as its last argument.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "Platform/Runtime/Value.h"

namespace Platform {

namespace Detail {

template <class T>
struct Bare {
  using Type = T;
};
template <class T>
struct Bare<std::optional<T>> : Bare<T> {};
// What an optional one is of, at the end.
template <class T>
using BareOf = typename Bare<std::decay_t<T>>::Type;

// Whether a value would turn into one of another kind, as the language lets it: anything but a
// class into a Boolean, a Boolean or a character into a number, a real into an integer.
template <class To, class From>
inline constexpr bool isOfOtherKind =
    std::is_same_v<To, bool>
        ? !std::is_class_v<From> && !std::is_same_v<From, bool>
        : std::is_arithmetic_v<To> && std::is_arithmetic_v<From> && !PlainInteger<From> &&
              !(std::is_floating_point_v<To> && std::is_floating_point_v<From>);

template <class T>
inline constexpr bool isFunction = false;
template <class Signature>
inline constexpr bool isFunction<std::function<Signature>> = true;

}  // namespace Detail

class Decoder;

// A reply block without its type, and how it is called with what a decoder reads.
struct ReplyReader {
  std::shared_ptr<void> block;  // null: the answer is read for nobody
  void (*read)(Decoder& answer, void* block);

  void operator()(Decoder& answer) const { read(answer, block.get()); }
};

// Anything that can be called with the values of an answer, or nothing. Copies share it. One handed
// to an exported object's method may be called from any thread, once: a second call is ignored, and
// one that goes without having been called answers with a refusal.
template <class... Values>
class Reply {
 public:
  // What is called. One that is made for the purpose needs no other memory than its own.
  class Block {
   public:
    virtual ~Block() = default;
    virtual void call(Values... values) = 0;
  };

  Reply() = default;
  Reply(std::nullptr_t) {}
  Reply(std::shared_ptr<Block> block) : block_(std::move(block)) {}
  template <class Callable>
  requires(!std::same_as<std::remove_cvref_t<Callable>, Reply> &&
           std::invocable<std::decay_t<Callable>&, Values...>) Reply(Callable&& callable) {
    using Content = std::decay_t<Callable>;
    if constexpr (std::is_pointer_v<Content> || Detail::isFunction<Content>) {
      if (!callable) return;
    }
    block_ = std::make_shared<Calling<Content>>(std::forward<Callable>(callable));
  }

  explicit operator bool() const { return block_ != nullptr; }
  friend bool operator==(const Reply& reply, std::nullptr_t) { return !reply; }
  const std::shared_ptr<Block>& block() const { return block_; }
  // There must be a block.
  void operator()(Values... values) const { block_->call(std::forward<Values>(values)...); }
  // Nothing turns into a value of another kind, but for what stands in braces.
  template <class... Given>
  requires(sizeof...(Given) == sizeof...(Values) &&
           (Detail::isOfOtherKind<Detail::BareOf<Values>, Detail::BareOf<Given>> || ...)) void
  operator()(Given&&... given) const = delete;

 private:
  template <class Callable>
  class Calling final : public Block {
   public:
    template <class From>
    explicit Calling(From&& callable) : callable_(std::forward<From>(callable)) {}
    void call(Values... values) override { callable_(std::forward<Values>(values)...); }

   private:
    Callable callable_;
  };

  std::shared_ptr<Block> block_;
};

}  // namespace Platform
