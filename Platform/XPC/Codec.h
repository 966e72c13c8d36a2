// The codec: values of the interfaces to bytes and back, one encode/decode pair per type.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/Value.h"
#include "Platform/XPC/Decoder.h"
#include "Platform/XPC/Encoder.h"
#include "Platform/XPC/Fields.h"

namespace Platform {

namespace Detail {

// Whether an object of this type may be nil already, so that an optional one would be ambiguous.
template <class T>
inline constexpr bool mayBeNil = std::same_as<T, Value>;
template <class T>
inline constexpr bool mayBeNil<std::optional<T>> = true;

// What becomes of a structure's field that is missing.
template <class T>
void takeForNone(Decoder& decoder, T&) {
  decoder.wrongClass();
}
template <class T>
void takeForNone(Decoder&, std::optional<T>& value) {
  value.reset();
}

}  // namespace Detail

template <class T>
concept WireType = requires(Encoder& encoder, Decoder& decoder, T& value) {
  encode(encoder, std::as_const(value));
  decode(decoder, value);
};

// Says so, at compile time, when a type may not stand in an interface.
template <class T>
struct RequireWireType {
  static_assert(WireType<T>,
                "an argument, an answer or a structure's field is a bool, an integer, a double, a "
                "Text (Text::fromUtf8 makes one of a std::string), Data, an NSDate, an "
                "EndpointRef, a Value, a structure that names its fields, or a std::vector, a "
                "std::map with Texts as keys or a std::optional (of what is not nil already) of "
                "these: see \"Types\" in Documentation/quickstart.md");
  static constexpr bool holds = true;
};

namespace Detail {

template <class T, class Structure>
RequireWireType<T> requireTypeOf(T Structure::*);

}  // namespace Detail

// The types that an interface may use. To add one, add its pair here; an application's own has its
// pair beside it, in its own namespace. What has none is not turned into what has one.
template <class T>
void encode(Encoder& encoder, const T& value) = delete;
void encode(Encoder& encoder, bool boolean);
void encode(Encoder& encoder, double real);
void encode(Encoder& encoder, const Text& text);
void encode(Encoder& encoder, const Data& data);
void encode(Encoder& encoder, const NSDate& date);
void encode(Encoder& encoder, const EndpointRef& endpoint);
// Stops the process for an object that is not an endpoint.
void encode(Encoder& encoder, const Value& value);

void decode(Decoder& decoder, bool& boolean);
void decode(Decoder& decoder, double& real);
void decode(Decoder& decoder, Text& text);
void decode(Decoder& decoder, Data& data);
void decode(Decoder& decoder, NSDate& date);
void decode(Decoder& decoder, EndpointRef& endpoint);  // nil is of the wrong class
void decode(Decoder& decoder, Value& value);

template <PlainInteger T>
void encode(Encoder& encoder, const T& integer) {
  if (std::cmp_less(integer, 0)) {
    encoder.head(Wire::Major::negativeInteger, ~static_cast<std::uint64_t>(integer));
  } else {
    encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(integer));
  }
}

// An integer out of range is of the wrong class.
template <PlainInteger T>
void decode(Decoder& decoder, T& integer) {
  const auto keep = [&](auto read) {
    if (!std::in_range<T>(read)) return decoder.wrongClass();
    integer = static_cast<T>(read);
  };
  if constexpr (std::unsigned_integral<T>) {
    keep(decoder.unsignedInteger());
  } else {
    keep(decoder.signedInteger());
  }
}

// None is nil.
template <WireType T>
requires(!Detail::mayBeNil<T>) void encode(Encoder& encoder, const std::optional<T>& value) {
  value ? encode(encoder, *value) : encoder.nil();
}

template <WireType T>
requires(!Detail::mayBeNil<T>) void decode(Decoder& decoder, std::optional<T>& value) {
  value.reset();
  if (!decoder.takeNil()) decode(decoder, value.emplace());
}

template <WireType T>
void encode(Encoder& encoder, const std::vector<T>& items) {
  encoder.array(items.size(), [&] {
    for (const T& item : items) encode(encoder, item);
  });
}

template <WireType T>
void decode(Decoder& decoder, std::vector<T>& items) {
  items.clear();
  decoder.eachItem(sizeof(T), [&] {
    T item{};
    decode(decoder, item);
    items.push_back(std::move(item));
  });
}

template <WireType T>
void encode(Encoder& encoder, const std::map<Text, T>& entries) {
  encoder.map(entries.size(), [&] {
    for (const auto& [key, item] : entries) {
      encode(encoder, key);
      encode(encoder, item);
    }
  });
}

template <WireType T>
void decode(Decoder& decoder, std::map<Text, T>& entries) {
  entries.clear();
  decoder.eachEntry(sizeof(Text) + sizeof(T), [&](std::string_view utf8) {
    auto key = Text::fromUtf8(std::string(utf8));
    if (!key) return decoder.malformed();
    const auto [entry, isNew] = entries.try_emplace(*std::move(key));
    if (!isNew) return decoder.malformed();
    decode(decoder, entry->second);
  });
}

template <Structure T>
void encode(Encoder& encoder, const T& structure) {
  static constexpr auto fields = T::fields();
  [&]<auto... Members>(const Fields<Members...>&) {
    static_assert((decltype(Detail::requireTypeOf(Members))::holds && ...));
    encoder.map(sizeof...(Members), [&] {
      auto name = fields.names.begin();
      ((encoder.text(*name++), encode(encoder, structure.*Members)), ...);
    });
  }
  (fields);
}

template <Structure T>
void decode(Decoder& decoder, T& structure) {
  static constexpr auto fields = T::fields();
  [&]<auto... Members>(const Fields<Members...>&) {
    static_assert((decltype(Detail::requireTypeOf(Members))::holds && ...));
    std::array<bool, sizeof...(Members)> isThere{};
    decoder.eachEntry(0, [&](std::string_view name) {
      const auto found = std::find(fields.names.begin(), fields.names.end(), name);
      if (found == fields.names.end()) {
        return Text::isUtf8(name) ? decoder.skip() : decoder.malformed();
      }
      const auto index = static_cast<std::size_t>(found - fields.names.begin());
      if (std::exchange(isThere[index], true)) return decoder.malformed();
      std::size_t at = 0;
      ((at++ == index ? decode(decoder, structure.*Members) : void()), ...);
    });
    std::size_t at = 0;
    ((isThere[at++] ? void() : Detail::takeForNone(decoder, structure.*Members)), ...);
  }
  (fields);
}

}  // namespace Platform
