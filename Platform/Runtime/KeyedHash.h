// KeyedHash: the hash of bytes that strangers choose, with a key of this process's own.
//
// Sixteen bytes at a time are taken by one multiplication with what nobody else knows: the key, and
// what came before; both halves of the product are kept, one on the other. Wang Yi's wyhash mixes
// like this, and tables of other systems rely on it with a random key as this one does: who neither
// knows the key nor sees a hash cannot say which bytes meet. Long bytes go in four lanes, which a
// processor multiplies side by side.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Platform {

class KeyedHash {
 public:
  using Key = std::array<std::uint64_t, 8>;  // all random

  // Within one process: it depends on the order of bytes in a word.
  static std::uint64_t of(std::string_view bytes, const Key& key) {
    const char* at = bytes.data();
    const char* const end = at + bytes.size();
    std::uint64_t hash = key[lanes];
    if (bytes.size() > lanes * pair) {
      std::array<std::uint64_t, lanes> folded;
      std::memcpy(folded.data(), key.data() + lanes, sizeof folded);
      for (; static_cast<std::size_t>(end - at) > lanes * pair; at += lanes * pair) {
        for (std::size_t lane = 0; lane < lanes; ++lane) {
          const char* const its = at + lane * pair;
          folded[lane] = product(word(its) ^ key[lane], word(its + 8) ^ folded[lane]);
        }
      }
      for (const std::uint64_t lane : folded) hash = product(hash ^ key[0], lane ^ key[1]);
    }
    for (; static_cast<std::size_t>(end - at) > pair; at += pair) {
      hash = product(word(at) ^ key[0], word(at + 8) ^ hash);
    }
    // The last, with some that have been taken already where there are any.
    const auto [first, second] = lastOf(bytes);
    hash = product(first ^ key[1], second ^ hash);
    return product(hash ^ key[2], bytes.size() ^ key[3]);
  }

 private:
  static constexpr std::size_t lanes = 4;
  static constexpr std::size_t pair = 2 * sizeof(std::uint64_t);

  struct Pair {
    std::uint64_t first, second;
  };

  template <class Number = std::uint64_t>
  static std::uint64_t word(const char* bytes) {
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
  }

  static Pair lastOf(std::string_view bytes) {
    const std::size_t size = bytes.size();
    const char* const end = bytes.data() + size;
    if (size >= pair) return {word(end - pair), word(end - 8)};
    if (size >= 8) return {word(bytes.data()), word(end - 8)};
    if (size >= 4) return {word<std::uint32_t>(bytes.data()), word<std::uint32_t>(end - 4)};
    Pair few{};
    std::memcpy(&few.first, bytes.data(), size);
    return few;
  }

  static std::uint64_t product(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide wide = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(wide) ^ static_cast<std::uint64_t>(wide >> 64);
  }
};

}  // namespace Platform
