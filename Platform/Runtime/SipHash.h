// SipHash-1-3: a keyed hash of bytes, for tables whose keys strangers choose.
//
// Without the key nobody can say which texts meet in a table's bucket, so nobody can prepare texts
// that all do. After J.-P. Aumasson and D. J. Bernstein, "SipHash: a fast short-input PRF", 2012,
// with the fewer rounds that hash tables take today.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Platform {

class SipHash {
 public:
  struct Key {
    std::uint64_t low;
    std::uint64_t high;
  };

  static std::uint64_t of(std::string_view bytes, const Key& key) {
    SipHash hash(key);
    const char* at = bytes.data();
    for (std::size_t words = bytes.size() / 8; words > 0; --words, at += 8) {
      hash.add(littleEndian(at, 8));
    }
    // The last word has the length's lowest byte at its top.
    hash.add(lastBytes(bytes) | std::uint64_t{bytes.size()} << 56);
    hash.c_ ^= 0xff;
    for (int round = 0; round < 3; ++round) hash.mix();
    return hash.a_ ^ hash.b_ ^ hash.c_ ^ hash.d_;
  }

 private:
  explicit SipHash(const Key& key)
      : a_(key.low ^ 0x736f6d6570736575),
        b_(key.high ^ 0x646f72616e646f6d),
        c_(key.low ^ 0x6c7967656e657261),
        d_(key.high ^ 0x7465646279746573) {}

  static std::uint64_t littleEndian(const char* bytes, std::size_t count) {
    std::uint64_t word = 0;
    if constexpr (std::endian::native == std::endian::little) {
      if (count == 8) {
        std::memcpy(&word, bytes, 8);
        return word;
      }
    }
    for (std::size_t i = count; i-- > 0;) word = word << 8 | static_cast<unsigned char>(bytes[i]);
    return word;
  }

  // Those behind the last whole word: read with ones before them, where there are any.
  static std::uint64_t lastBytes(std::string_view bytes) {
    const std::size_t count = bytes.size() % 8;
    if (count == 0 || bytes.size() < 8) return littleEndian(bytes.data(), count);
    return littleEndian(bytes.data() + bytes.size() - 8, 8) >> (8 * (8 - count));
  }

  void add(std::uint64_t word) {
    d_ ^= word;
    mix();
    a_ ^= word;
  }

  void mix() {
    a_ += b_;
    b_ = std::rotl(b_, 13) ^ a_;
    a_ = std::rotl(a_, 32);
    c_ += d_;
    d_ = std::rotl(d_, 16) ^ c_;
    a_ += d_;
    d_ = std::rotl(d_, 21) ^ a_;
    c_ += b_;
    b_ = std::rotl(b_, 17) ^ c_;
    c_ = std::rotl(c_, 32);
  }

  std::uint64_t a_, b_, c_, d_;
};

}  // namespace Platform
