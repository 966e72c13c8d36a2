// Looking through text many bytes at a time, for what is nearly always plain and may be long.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace Platform {

// In each byte of a word, its highest bit.
constexpr std::uint64_t highBits = 0x8080808080808080u;

// How many bytes at the beginning of `bytes` are without alarm: all, or a multiple of eight.
// `alarm` takes a word and gives one that has the high bit of some byte set when the word holds
// what is looked for. What is left is for a closer look.
template <class Alarm>
std::size_t lengthWithoutAlarm(std::string_view bytes, Alarm alarm) {
  std::uint64_t words[8];
  std::size_t i = 0;
  for (; i + sizeof words <= bytes.size(); i += sizeof words) {
    std::memcpy(words, bytes.data() + i, sizeof words);
    std::uint64_t all = 0;
    for (const std::uint64_t word : words) all |= alarm(word);  // a loop for vector instructions
    if ((all & highBits) != 0) break;
  }
  for (; i + sizeof words[0] <= bytes.size(); i += sizeof words[0]) {
    std::memcpy(words, bytes.data() + i, sizeof words[0]);
    if ((alarm(words[0]) & highBits) != 0) return i;
  }
  // The rest with some that have been looked at, when there are enough.
  if (i < bytes.size() && bytes.size() >= sizeof words[0]) {
    std::memcpy(words, bytes.data() + bytes.size() - sizeof words[0], sizeof words[0]);
    if ((alarm(words[0]) & highBits) == 0) return bytes.size();
  }
  return i;
}

}  // namespace Platform
