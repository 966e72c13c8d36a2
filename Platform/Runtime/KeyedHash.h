// KeyedHash: the hash of bytes that strangers choose, with a key of this process's own.
//
// It is SipHash (SipHash.h). Of long bytes, which would take it long, it hashes what is left after
// folding them: in four lanes, each takes 16 bytes by one multiplication with secrets, and keeps
// both halves of the product, one on the other. Wang Yi's wyhash mixes like this; who does not know
// the secrets, nor sees a hash, cannot say which bytes meet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Platform/Runtime/SipHash.h"

namespace Platform {

class KeyedHash {
 public:
  // All random.
  struct Key {
    SipHash::Key sip;
    std::array<std::uint64_t, 8> secrets;
  };

  static std::uint64_t of(std::string_view bytes, const Key& key) {
    if (bytes.size() <= longest) return SipHash::of(bytes, key.sip);
    struct {
      std::array<std::uint64_t, lanes> folded;
      std::uint64_t size;
    } digest;
    digest.size = bytes.size();
    for (std::size_t lane = 0; lane < lanes; ++lane)
      digest.folded[lane] = key.secrets[lanes + lane];
    const char* at = bytes.data();
    for (std::size_t left = bytes.size() / block; left > 0; --left, at += block) {
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        std::uint64_t words[2];
        std::memcpy(words, at + lane * sizeof words, sizeof words);
        digest.folded[lane] = product(words[0] ^ key.secrets[lane], words[1] ^ digest.folded[lane]);
      }
    }
    const SipHash::Key restKey{key.sip.low, SipHash::of({at, bytes.size() % block}, key.sip)};
    return SipHash::of({reinterpret_cast<const char*>(&digest), sizeof digest}, restKey);
  }

 private:
  static constexpr std::size_t longest = 256;  // that is not folded, in bytes
  static constexpr std::size_t lanes = 4;
  static constexpr std::size_t block = lanes * 2 * sizeof(std::uint64_t);

  static std::uint64_t product(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide wide = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(wide) ^ static_cast<std::uint64_t>(wide >> 64);
  }
};

}  // namespace Platform
