#include "Platform/XPC/Encoder.h"

#include <endian.h>

#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <utility>

namespace Platform {
namespace {

void storeLittleEndian(std::byte* out, std::size_t number) {
  const std::uint32_t bytes = htole32(static_cast<std::uint32_t>(number));
  std::memcpy(out, &bytes, sizeof bytes);
}

}  // namespace

Encoder::Encoder() {
  static constexpr std::array<std::byte, Wire::headerSize> header{};
  frame_.bytes.append(header);
}

Encoder::Encoder(std::size_t count, Wire::Kind kind) : Encoder() {
  head(Wire::Major::array, count);
  unsignedInteger(static_cast<std::uint64_t>(kind));
}

void Encoder::longHead(Wire::Major major, std::uint64_t argument) {
  int code = 0;  // the argument follows in 1 << code bytes: the fewest that hold it
  if (argument > std::numeric_limits<std::uint8_t>::max()) code = 1;
  if (argument > std::numeric_limits<std::uint16_t>::max()) code = 2;
  if (argument > std::numeric_limits<std::uint32_t>::max()) code = 3;
  item(static_cast<std::uint8_t>(Wire::firstByte(major) | (Wire::oneByteFollows + code)), argument,
       std::size_t{1} << code);
}

void Encoder::item(std::uint8_t firstByte, std::uint64_t argument, std::size_t width) {
  std::array<std::byte, 1 + sizeof argument> bytes{std::byte{firstByte}};
  const std::uint64_t bigEndian = htobe64(argument << (8 * (sizeof argument - width)));
  std::memcpy(bytes.data() + 1, &bigEndian, sizeof bigEndian);
  frame_.bytes.appendFirst(width + 1, bytes);
}

void Encoder::real(double number) {
  item(Wire::realByte, std::bit_cast<std::uint64_t>(number), 8);
}

void Encoder::endpoint(const EndpointRef& endpoint) {
  if (!endpoint) return nil();
  head(Wire::Major::tag, Wire::endpointTag);
  unsignedInteger(frame_.endpoints.size());
  frame_.endpoints.push_back(endpoint);
}

bool Encoder::enter(Wire::Major major, std::size_t count, std::size_t items) {
  if (++depth_ > Wire::deepestNesting) frame_.isTooDeep = true;
  frame_.items += items;
  head(major, count);
  return !frame_.isTooDeep;
}

OutgoingFrame&& Encoder::finish() {
  storeLittleEndian(frame_.bytes.data(), frame_.bytes.size() - Wire::headerSize);
  storeLittleEndian(frame_.bytes.data() + 4, frame_.endpoints.size());
  return std::move(frame_);
}

}  // namespace Platform
