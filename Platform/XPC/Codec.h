// The codec: values of the interfaces to bytes and back, one encode/decode pair per type.
//
// Decoding distinguishes two faults. A payload that is not of the wire's format is malformed, and
// its connection has no future. A well-formed item of another type than the interface declares is
// an argument of the wrong class: the message is refused and nothing else happens. After either,
// decoding goes on without effect, so callers ask once, at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/UniqueFd.h"
#include "Platform/Runtime/Value.h"
#include "Platform/XPC/Budget.h"
#include "Platform/XPC/ForeignDescriptors.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"
#include "Platform/XPC/Wire.h"

namespace Platform {

using EndpointRef = std::shared_ptr<NSXPCListenerEndpoint>;

// A frame ready to be sent: header and payload, and the endpoints whose descriptors go beside it.
struct OutgoingFrame {
  std::vector<std::byte> bytes;
  std::vector<EndpointRef> endpoints;
  std::size_t items = 0;  // of values of any type

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
  void countItem() { ++frame_.items; }         // of a value of any type

  OutgoingFrame finish();  // fills in the header

 private:
  OutgoingFrame frame_;
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
  std::string_view text();  // its bytes, UTF-8 not yet checked; valid as long as the frame
  std::size_t array();      // the number of items that follow; 0 for another type
  bool boolean();
  EndpointRef endpoint();
  Value value();
  bool takeNil();  // whether the item is nil, which is then read

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
  std::span<const std::byte> take(std::uint64_t length);
  void passOver(std::span<const std::byte> itemAndRest);
  void skip(int depth);
  EndpointRef endpointAt(std::uint64_t index);
  Value value(int depth);
  Value::Array items(std::uint64_t count, int depth);
  Value::Dictionary entries(std::uint64_t count, int depth);
  Value tagged(std::uint64_t tag);

  std::span<const std::byte> rest_;
  std::span<UniqueFd> descriptors_;
  const Descriptors policy_;
  std::size_t items_ = 0;
  bool malformed_ = false;
  bool wrongClass_ = false;
};

// The types that an interface may use. To add one, add its pair here. What has none is not turned
// into what has one.
template <class T>
void encode(Encoder& encoder, const T& value) = delete;
void encode(Encoder& encoder, bool boolean);
void encode(Encoder& encoder, const Text& text);
void encode(Encoder& encoder, const EndpointRef& endpoint);
void encode(Encoder& encoder, const std::optional<EndpointRef>& endpoint);
// Stops the process for an object that is not an endpoint, and for a value nested too deeply.
void encode(Encoder& encoder, const Value& value);

void decode(Decoder& decoder, bool& boolean);
void decode(Decoder& decoder, Text& text);
void decode(Decoder& decoder, EndpointRef& endpoint);  // nil is of the wrong class
void decode(Decoder& decoder, std::optional<EndpointRef>& endpoint);
void decode(Decoder& decoder, Value& value);

template <class T>
concept WireType = requires(Encoder& encoder, Decoder& decoder, T& value) {
  encode(encoder, std::as_const(value));
  decode(decoder, value);
};

// Says so, at compile time, when a type may not stand in an interface.
template <class T>
struct RequireWireType {
  static_assert(WireType<T>,
                "an argument or answer is a bool, a Text, an EndpointRef, an optional EndpointRef "
                "or a Value, see \"Types\" in Documentation/quickstart.md");
  static constexpr bool holds = true;
};

}  // namespace Platform
