// The codec: values of the interfaces to bytes and back, one encode/decode pair per type.
//
// Decoding distinguishes two faults. A payload that is not of the wire's format is malformed, and
// its connection has no future. A well-formed item of another type than the interface declares is
// an argument of the wrong class: the message is refused and nothing else happens. After either,
// decoding goes on without effect, so callers ask once, at the end.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Platform/Runtime/Value.h"
#include "Platform/XPC/Budget.h"
#include "Platform/XPC/Fields.h"
#include "Platform/XPC/ForeignDescriptors.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"
#include "Platform/XPC/Wire.h"

namespace Platform {

using EndpointRef = std::shared_ptr<NSXPCListenerEndpoint>;

// A frame ready to be sent: header and payload, and the endpoints whose descriptors go beside it.
struct OutgoingFrame {
  std::vector<std::byte> bytes;
  std::vector<EndpointRef> endpoints;
  std::size_t items = 0;  // in the arrays and maps of its values

  // False when it is larger than the wire allows.
  bool isSendable() const;
};

// A frame as it arrived.
struct Frame {
  std::vector<std::byte> payload;
  ForeignDescriptors descriptors;
  bool lacksDescriptors =
      false;        // this process had no room for some of them: it is not carried out
  BudgetPart part;  // a large one's
};

// Writes one frame. A value.
class Encoder {
 public:
  Encoder();

  void head(Wire::Major major, std::uint64_t argument);
  void bytes(std::span<const std::byte> content);
  void text(std::string_view utf8);
  void simple(std::uint8_t firstByte) { frame_.bytes.push_back(std::byte{firstByte}); }
  void real(double number);
  void endpoint(const EndpointRef& endpoint);  // nil when null
  void nil() { simple(Wire::nullByte); }

  // A value's array of `count` items, or map of `count` entries, which `write` writes. Stops the
  // process when it is nested too deeply.
  template <std::invocable Write>
  void array(std::size_t count, Write write) {
    enter(Wire::Major::array, count, count);
    write();
    --depth_;
  }
  template <std::invocable Write>
  void map(std::size_t count, Write write) {
    enter(Wire::Major::map, count, 2 * count);
    write();
    --depth_;
  }

  OutgoingFrame finish();  // fills in the header

 private:
  void enter(Wire::Major major, std::size_t count, std::size_t items);

  OutgoingFrame frame_;
  int depth_ = 0;  // of arrays and maps, in the value at hand
};

// Whether the decoder looks at a descriptor before it passes for an endpoint. What a request brings
// is looked at, so that nothing else ever gets into a map of endpoints. An answer's is not: it goes
// to the one who asked, to whom a false one is an endpoint whose listener has gone, and the look is
// a system call.
enum class Descriptors { checked, taken };

// Reads one frame's payload, item by item. Owns nothing: the frame must outlive it.
class Decoder {
 public:
  explicit Decoder(Frame& frame, Descriptors policy = Descriptors::checked)
      : rest_(frame.payload), descriptors_(frame.descriptors.all()), policy_(policy) {}

  bool isMalformed() const { return malformed_; }
  bool isWrongClass() const { return wrongClass_; }
  bool isSound() const { return !malformed_ && !wrongClass_; }
  bool isAtEnd() const { return rest_.empty(); }

  // Each reads one item. An item of another type is passed over and makes the payload wrongClass;
  // the result is then empty.
  std::uint64_t unsignedInteger();
  std::int64_t signedInteger();  // one beyond its range is of another type, too
  double real();
  std::string_view text();  // its bytes, UTF-8 not yet checked; valid as long as the frame
  std::span<const std::byte> bytes();  // valid as long as the frame
  std::size_t array();                 // the number of items that follow; 0 for another type
  bool boolean();
  NSDate date();
  EndpointRef endpoint();
  Value value();
  bool takeNil();  // whether the item is nil, which is then read

  // Reads a value's array: `read` is called for each item, and reads it, up to the first fault. An
  // item takes `size` bytes in memory: more of them than there is room for are refused.
  template <std::invocable Read>
  void eachItem(std::size_t size, Read read) {
    for (auto left = enter(Wire::Major::array, 1, size); left > 0 && isSound(); --left) read();
    --depth_;
  }
  // The same for a map: `read` is given the key, UTF-8 not yet checked, and reads the item.
  template <std::invocable<std::string_view> Read>
  void eachEntry(std::size_t size, Read read) {
    for (auto left = enter(Wire::Major::map, 2, size); left > 0 && isSound(); --left) read(key());
    --depth_;
  }

  void skip();         // one argument or value, checked in full, without building it
  void skipMessage();  // the same for a whole payload
  void wrongClass() { wrongClass_ = true; }
  void malformed();

 private:
  struct Head {
    Wire::Major major;
    std::uint8_t firstByte;
    std::uint64_t argument;  // of a simple value or real: its bits
  };

  std::optional<Head> head();
  std::optional<Wire::Major> nextMajor() const;
  bool isNext(std::uint8_t firstByte) const;
  std::span<const std::byte> take(std::uint64_t length);
  void passOver(std::span<const std::byte> itemAndRest);
  void skip(int depth);
  EndpointRef endpointAt(std::uint64_t index);
  std::uint64_t enter(Wire::Major major, std::uint64_t itemsEach, std::uint64_t size);
  std::string_view key();
  Value tagged();

  std::span<const std::byte> rest_;
  std::span<UniqueFd> descriptors_;
  const Descriptors policy_;
  int depth_ = 0;          // of arrays and maps, in the value at hand
  std::size_t items_ = 0;  // in arrays and maps
  std::size_t room_ = 0;   // that their items take, in bytes
  bool malformed_ = false;
  bool wrongClass_ = false;
};

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

// Integers of up to 64 bits; characters are none.
template <class T>
concept WireInteger = std::integral<T> && sizeof(T) <= sizeof(std::uint64_t) &&
                      !std::same_as<T, bool> && !std::same_as<T, char> &&
                      !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
                      !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

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
// Stops the process for an object that is not an endpoint, and for a value nested too deeply.
void encode(Encoder& encoder, const Value& value);

void decode(Decoder& decoder, bool& boolean);
void decode(Decoder& decoder, double& real);
void decode(Decoder& decoder, Text& text);
void decode(Decoder& decoder, Data& data);
void decode(Decoder& decoder, NSDate& date);
void decode(Decoder& decoder, EndpointRef& endpoint);  // nil is of the wrong class
void decode(Decoder& decoder, Value& value);

template <WireInteger T>
void encode(Encoder& encoder, const T& integer) {
  if (std::cmp_less(integer, 0)) {
    encoder.head(Wire::Major::negativeInteger, ~static_cast<std::uint64_t>(integer));
  } else {
    encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(integer));
  }
}

// An integer out of range is of the wrong class.
template <WireInteger T>
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
