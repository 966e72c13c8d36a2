#include "Platform/XPC/Encoder.h"

#include <array>
#include <bit>
#include <limits>
#include <utility>

#include "Platform/Runtime/Stop.h"

namespace Platform {
namespace {

void storeLittleEndian(std::byte* out, std::size_t number) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::byte>(number >> (8 * i));
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
  std::array<std::byte, 9> bytes;
  bytes[0] = std::byte{firstByte};
  for (std::size_t i = width; i > 0; --i, argument >>= 8)
    bytes[i] = static_cast<std::byte>(argument);
  frame_.bytes.append(std::span(bytes).first(width + 1));
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

void Encoder::enter(Wire::Major major, std::size_t count, std::size_t items) {
  if (++depth_ > Wire::deepestNesting) stopProcess(ExitStatus::software);
  frame_.items += items;
  head(major, count);
}

OutgoingFrame&& Encoder::finish() {
  storeLittleEndian(frame_.bytes.data(), frame_.bytes.size() - Wire::headerSize);
  storeLittleEndian(frame_.bytes.data() + 4, frame_.endpoints.size());
  return std::move(frame_);
}

}  // namespace Platform
