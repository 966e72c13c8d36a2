// The encoder: writes one frame, item by item. Wire.h has the format's numbers.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "Platform/Runtime/SmallVector.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"
#include "Platform/XPC/Wire.h"

namespace Platform {

using EndpointRef = std::shared_ptr<NSXPCListenerEndpoint>;

// A frame ready to be sent: header and payload, and the endpoints whose descriptors go beside it.
// A usual one takes no memory of its own.
struct OutgoingFrame {
  SmallVector<std::byte, 192> bytes;
  SmallVector<EndpointRef, 1> endpoints;
  std::size_t items = 0;   // in the arrays and maps of its values
  bool isTooDeep = false;  // and then not whole

  // False when it is larger, or nested deeper, than the wire allows.
  bool isSendable() const {
    return !isTooDeep && bytes.size() - Wire::headerSize <= Wire::mostPayloadBytes &&
           endpoints.size() <= Wire::mostDescriptors && items <= Wire::mostItems;
  }
};

// Writes one frame. Moves.
class Encoder {
 public:
  Encoder();  // of what is no message
  // A payload of that kind: an array of `count` items, of which the kind is written.
  Encoder(std::size_t count, Wire::Kind kind);

  void head(Wire::Major major, std::uint64_t argument) {
    if (argument < Wire::oneByteFollows) {
      simple(static_cast<std::uint8_t>(Wire::firstByte(major) | argument));
    } else {
      longHead(major, argument);
    }
  }
  void unsignedInteger(std::uint64_t number) { head(Wire::Major::unsignedInteger, number); }
  void bytes(std::span<const std::byte> content) {
    head(Wire::Major::bytes, content.size());
    frame_.bytes.append(content);
  }
  void text(std::string_view utf8) {
    head(Wire::Major::text, utf8.size());
    frame_.bytes.append(std::as_bytes(std::span(utf8)));
  }
  void simple(std::uint8_t firstByte) { frame_.bytes.push_back(std::byte{firstByte}); }
  void real(double number);
  void endpoint(const EndpointRef& endpoint);  // nil when null
  void nil() { simple(Wire::nullByte); }

  // A value's array of `count` items, or map of `count` entries, which `write` writes.
  template <std::invocable Write>
  void array(std::size_t count, Write write) {
    if (enter(Wire::Major::array, count, count)) write();
    --depth_;
  }
  template <std::invocable Write>
  void map(std::size_t count, Write write) {
    if (enter(Wire::Major::map, count, 2 * count)) write();
    --depth_;
  }

  // Fills in the header. The frame is the encoder's until it is moved away.
  OutgoingFrame&& finish();

 private:
  void longHead(Wire::Major major, std::uint64_t argument);
  void item(std::uint8_t firstByte, std::uint64_t argument, std::size_t width);
  bool enter(Wire::Major major, std::size_t count, std::size_t items);

  OutgoingFrame frame_;
  int depth_ = 0;  // of arrays and maps, in the value at hand
};

}  // namespace Platform
