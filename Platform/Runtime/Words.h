// Looking through text many bytes at a time, for what is nearly always plain and may be long.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

namespace Platform {

// How many bytes at the beginning of `bytes` are without alarm: all, or fewer than there may be,
// and none of fewer than 16. `alarm` takes a byte and gives one whose highest bit is set when it is
// what is looked for. What is left is for a closer look.
template <class Alarm>
std::size_t lengthWithoutAlarm(std::string_view bytes, Alarm alarm) {
  // What the compiler turns into vector instructions: the byte's own, and nothing across them.
  constexpr std::size_t width = 16;
  const auto isPlain = [&]<std::size_t... block>(std::size_t from, std::index_sequence<block...>) {
    std::array<std::uint8_t, width * sizeof...(block)> part;
    std::array<std::uint8_t, width> alarms{};
    std::memcpy(part.data(), bytes.data() + from, sizeof part);
    const auto look = [&](std::size_t start) {
      for (std::size_t i = 0; i < width; ++i) {
        alarms[i] = static_cast<std::uint8_t>(alarms[i] | alarm(part[start + i]));
      }
    };
    (look(block * width), ...);
    std::uint64_t halves[2];
    std::memcpy(halves, alarms.data(), sizeof halves);
    return ((halves[0] | halves[1]) & 0x8080808080808080u) == 0;
  };
  constexpr std::make_index_sequence<1> one;
  constexpr std::make_index_sequence<4> many;
  if (bytes.size() < width) return 0;
  std::size_t i = 0;
  while (bytes.size() - i >= many.size() * width && isPlain(i, many)) i += many.size() * width;
  while (bytes.size() - i >= width && isPlain(i, one)) i += width;
  // The rest with some that have been looked at.
  return bytes.size() - i < width && isPlain(bytes.size() - width, one) ? bytes.size() : i;
}

}  // namespace Platform
