// Interfaces between processes: declared once, as a class of pure virtual methods with one table
// that gives each its selector. The description a connection exports, the dispatcher of incoming
// messages and the client's proxy all follow from that declaration:
//
//   class Greeting {
//    public:
//     virtual ~Greeting() = default;
//     virtual void greet(Text name, Reply<Text> reply) = 0;
//
//     class Proxy;
//     static consteval auto protocol() {
//       return Protocol("Greeting", method<&Greeting::greet>("greet:reply:"));
//     }
//   };
//
//   class Greeting::Proxy final : public RemoteProxy<Greeting> {
//     using RemoteProxy::RemoteProxy;
//     void greet(Text name, Reply<Text> reply) override { send<&Greeting::greet>(name, reply); }
//   };
//
// Methods return nothing; one that answers takes a reply block as its last argument. Argument and
// reply types are those of Codec.h. A method of other types, missing from the table, listed twice,
// or with a selector that does not fit its arguments does not compile.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Platform/Runtime/NSObject.h"
#include "Platform/XPC/Codec.h"
#include "Platform/XPC/IncomingRequest.h"
#include "Platform/XPC/Reply.h"

namespace Platform {

namespace Detail {

template <class Member>
struct MethodTraits {
  static_assert(sizeof(Member) == 0, "an interface's method returns void and is not const");
};

template <class T>
struct ArgumentTraits {
  static constexpr bool isReply = false;
  static_assert(RequireWireType<T>::holds);
};

template <class... Values>
struct ArgumentTraits<Reply<Values...>> {
  static constexpr bool isReply = true;
  static_assert((RequireWireType<std::remove_cvref_t<Values>>::holds && ...));
};

template <class... Arguments>
constexpr bool lastIsReply = false;
template <class First, class... Others>
constexpr bool lastIsReply<First, Others...> =
    std::tuple_element_t<sizeof...(Others),
                         std::tuple<ArgumentTraits<First>, ArgumentTraits<Others>...>>::isReply;

template <class InterfaceType, class... ArgumentTypes>
struct MethodTraits<void (InterfaceType::*)(ArgumentTypes...)> {
  using Interface = InterfaceType;
  using ArgumentTuple = std::tuple<std::remove_cvref_t<ArgumentTypes>...>;
  static constexpr std::size_t argumentCount = sizeof...(ArgumentTypes);
  static constexpr bool hasReply = lastIsReply<std::remove_cvref_t<ArgumentTypes>...>;
  static_assert((0 + ... + ArgumentTraits<std::remove_cvref_t<ArgumentTypes>>::isReply) == hasReply,
                "a reply block is a method's last argument");
  static constexpr std::size_t valueCount = argumentCount - (hasReply ? 1 : 0);
};

// A reply block that encodes what it is given and sends it back.
template <class... Values>
class AnswerBlock final : public Reply<Values...>::Block {
 public:
  explicit AnswerBlock(IncomingRequest&& request) : request_(std::move(request)) {}
  void call(Values... values) override {
    Encoder encoder = request_.beginAnswer();
    encoder.head(Wire::Major::array, sizeof...(Values));
    (encode(encoder, values), ...);
    request_.send(encoder);
  }

 private:
  IncomingRequest request_;
};
template <class... Values>
Reply<Values...> answerThrough(IncomingRequest&& request, const Reply<Values...>&) {
  return Reply<Values...>(std::make_shared<AnswerBlock<Values...>>(std::move(request)));
}

// Calls the method on the object, if the arguments are what it takes. A call's request goes with
// the reply block.
template <auto Member>
void invoke(void* object, Decoder& decoder, IncomingRequest& request) {
  using Traits = MethodTraits<decltype(Member)>;
  typename Traits::ArgumentTuple arguments;
  if (decoder.array() != Traits::valueCount) return decoder.wrongClass();
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    (decode(decoder, std::get<I>(arguments)), ...);
  }
  (std::make_index_sequence<Traits::valueCount>());
  if (!decoder.isSound()) return;
  if (!decoder.isAtEnd()) return decoder.malformed();
  if constexpr (Traits::hasReply) {
    auto& reply = std::get<Traits::valueCount>(arguments);
    reply = answerThrough(std::move(request), reply);
  }
  auto* const target = static_cast<typename Traits::Interface*>(object);
  std::apply([&](auto&... values) { (target->*Member)(std::move(values)...); }, arguments);
}

}  // namespace Detail

template <auto Member>
struct Method {
  std::string_view selector;
};

// One row of an interface's table.
template <auto Member>
consteval Method<Member> method(std::string_view selector) {
  const auto colons = std::count(selector.begin(), selector.end(), ':');
  if (static_cast<std::size_t>(colons) != Detail::MethodTraits<decltype(Member)>::argumentCount) {
    throw "a selector has one colon for each argument, the reply block included";
  }
  return {selector};
}

// An interface's table, with the name under which peers know it.
template <auto... Members>
struct Protocol {
  consteval Protocol(std::string_view runTimeName, Method<Members>... methods)
      : name(runTimeName), selectors{methods.selector...} {
    for (std::size_t i = 0; i < selectors.size(); ++i) {
      for (std::size_t k = 0; k < i; ++k) {
        if (selectors[i] == selectors[k]) throw "two methods have the same selector";
      }
    }
  }

  template <auto Member>
  constexpr std::string_view selectorOf() const {
    constexpr bool listed = (std::is_same_v<Method<Member>, Method<Members>> || ...);
    static_assert(listed, "the method is missing from its interface's table");
    std::size_t index = 0;
    for (const bool isIt : {std::is_same_v<Method<Member>, Method<Members>>...}) {
      if (isIt) break;
      ++index;
    }
    return selectors[index];
  }

  std::string_view name;
  std::array<std::string_view, sizeof...(Members)> selectors;
};

// The description of an interface, as a connection exports it: which messages a peer may send, and
// which classes their arguments and replies may carry. A value.
class NSXPCInterface {
 public:
  template <class Interface>
  static NSXPCInterface interfaceWithProtocol() {
    NSXPCInterface description;
    description.description_ = &Described<Interface>::description;
    return description;
  }

  NSXPCInterface() = default;  // of nothing

  explicit operator bool() const { return description_ != nullptr; }
  std::string_view name() const { return description_->name; }

  // The object as the interface's implementer; null when it does not implement it.
  void* implementer(NSObject* object) const { return description_->cast(object); }

  // Carries the call out on an implementer, or does nothing when the decoder ends up not sound.
  // False when the interface has no such message, or has it with a reply block where the request
  // is no call, or the other way round.
  bool dispatch(void* implementer, std::string_view selector, Decoder& arguments,
                IncomingRequest& request) const;

 private:
  using Invoke = void (*)(void* object, Decoder& decoder, IncomingRequest& request);
  struct Entry {
    std::string_view selector;
    bool hasReply;
    Invoke invoke;
  };
  struct Description {
    std::string_view name;
    std::span<const Entry> entries;
    void* (*cast)(NSObject* object);
  };

  template <class Interface>
  struct Described {
    template <auto... Members>
    static constexpr auto table(const Protocol<Members...>& protocol) {
      std::array<Entry, sizeof...(Members)> rows{Entry{
          {}, Detail::MethodTraits<decltype(Members)>::hasReply, &Detail::invoke<Members>}...};
      for (std::size_t i = 0; i < rows.size(); ++i) rows[i].selector = protocol.selectors[i];
      return rows;
    }
    static constexpr auto entries = table(Interface::protocol());
    static constexpr Description description{
        Interface::protocol().name, entries,
        [](NSObject* object) -> void* { return dynamic_cast<Interface*>(object); }};
  };

  const Description* description_ = nullptr;
};

}  // namespace Platform
