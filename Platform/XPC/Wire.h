// The wire between two processes: its numbers, in one place. Documentation/wire-protocol.md
// explains them; payloads are a subset of CBOR (RFC 8949).
#pragma once

#include <cstddef>
#include <cstdint>

namespace Platform::Wire {

// A frame is a header of two little-endian 32-bit numbers, the payload's length in bytes and the
// number of descriptors that belong to it, and then the payload.
inline constexpr std::size_t headerSize = 8;
inline constexpr std::size_t mostPayloadBytes = std::size_t{256} << 20;
inline constexpr std::size_t mostDescriptors = 253;  // what the kernel takes in one call
inline constexpr std::size_t largePayload = std::size_t{64} << 10;  // more may have to wait
inline constexpr std::size_t fewDescriptors = 8;                    // likewise
inline constexpr int deepestNesting = 32;        // of arrays and maps in an argument or value
inline constexpr int arraysAroundArguments = 2;  // of a payload's own

// Of the items that make up a payload's values of any type: in memory each takes many times the
// byte that it may take here.
inline constexpr std::size_t mostItems = std::size_t{1} << 20;

// A payload is one array, whose first item is its kind.
enum class Kind : std::uint64_t {
  message = 0,  // [0, selector, [argument...]]
  call = 1,     // [1, serial, selector, [argument...]], to be answered
  reply = 2,    // [2, serial, [value...]]
  refusal = 3,  // [3, serial]: the call was not carried out, or nobody answered it
};

// CBOR's major types, in the three high bits of an item's first byte.
enum class Major : std::uint8_t {
  unsignedInteger,
  negativeInteger,
  bytes,
  text,
  array,
  map,
  tag,
  simple
};

// An item's first byte holds its argument in the five low bits, or says that it follows: in one
// byte here, and with each higher number in twice as many, up to eight.
constexpr std::uint8_t firstByte(Major major) {
  return static_cast<std::uint8_t>(static_cast<std::uint8_t>(major) << 5);
}
inline constexpr std::uint8_t argumentMask = 0x1F;
inline constexpr std::uint8_t oneByteFollows = 24;

inline constexpr std::uint64_t dateTag = 1;  // RFC 8949, 3.4.2: seconds since 1970
inline constexpr std::uint64_t endpointTag =
    18245;  // on the index of one of the frame's descriptors

// First bytes of the simple values in use.
inline constexpr std::uint8_t falseByte = 0xF4;
inline constexpr std::uint8_t trueByte = 0xF5;
inline constexpr std::uint8_t nullByte = 0xF6;
inline constexpr std::uint8_t realByte = 0xFB;  // a 64-bit floating-point number follows

}  // namespace Platform::Wire
