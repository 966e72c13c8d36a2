#include "Platform/Runtime/Text.h"

#include <sys/random.h>
#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "Platform/Runtime/KeyedHash.h"
#include "Platform/Runtime/Stop.h"
#include "Platform/Runtime/Words.h"

namespace Platform {
namespace {

// Below this code point nothing decomposes and nothing combines.
constexpr UChar32 firstInteresting = 0xC0;

std::size_t asciiPrefixLength(std::string_view bytes) {
  std::size_t i = lengthWithoutAlarm(bytes, [](std::uint8_t byte) { return byte; });
  while (i < bytes.size() && static_cast<unsigned char>(bytes[i]) < 0x80) ++i;
  return i;
}

bool isUtf8From(std::string_view bytes, std::size_t from) {
  const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const auto size = static_cast<std::int64_t>(bytes.size());
  auto i = static_cast<std::int64_t>(from);
  while (i < size) {
    UChar32 codePoint;
    U8_NEXT(data, i, size, codePoint);
    if (codePoint < 0) return false;
  }
  return true;
}

void append(std::string& out, UChar32 codePoint) {
  char buffer[U8_MAX_LENGTH];
  std::int32_t length = 0;
  U8_APPEND_UNSAFE(buffer, length, codePoint);
  out.append(buffer, static_cast<std::size_t>(length));
}

// Builds the canonical decomposition code point by code point. Marks wait in `run_` until the next
// starter and are then sorted: the library's own whole-text normaliser inserts each mark by a
// linear search, which makes a long run of misordered marks quadratic.
class Decomposer {
 public:
  void add(UChar32 codePoint) {
    if (codePoint < firstInteresting) {
      endRun();
      append(out_, codePoint);
      return;
    }
    UChar buffer[32];  // the longest full canonical decomposition has four code points
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t length = unorm2_getDecomposition(nfc(), codePoint, buffer, 32, &status);
    if (length < 0 || U_FAILURE(status)) {
      addDecomposed(codePoint);
      return;
    }
    for (std::int32_t i = 0; i < length;) {
      UChar32 part;
      U16_NEXT(buffer, i, length, part);
      addDecomposed(part);
    }
  }

  std::string finish() {
    endRun();
    return std::move(out_);
  }

 private:
  static const UNormalizer2* nfc() {
    static const UNormalizer2* const instance = [] {
      UErrorCode status = U_ZERO_ERROR;
      const UNormalizer2* normalizer = unorm2_getNFCInstance(&status);
      if (U_FAILURE(status)) stopProcess(ExitStatus::software);
      return normalizer;
    }();
    return instance;
  }

  void addDecomposed(UChar32 codePoint) {
    const std::uint64_t combiningClass = u_getCombiningClass(codePoint);
    if (combiningClass != 0) {
      run_.push_back(combiningClass << classShift | run_.size() << placeShift |
                     static_cast<std::uint32_t>(codePoint));
      return;
    }
    endRun();
    append(out_, codePoint);
  }

  void endRun() {
    if (run_.empty()) return;
    std::sort(run_.begin(), run_.end());
    for (const std::uint64_t mark : run_) {
      append(out_, static_cast<UChar32>(mark & ((1u << placeShift) - 1)));
    }
    run_.clear();
  }

  // A mark as a number to sort by: its class on top, its place in the run, and its code point.
  static constexpr int classShift = 56;
  static constexpr int placeShift = 21;

  std::string out_;
  std::vector<std::uint64_t> run_;
};

std::string decompose(std::string_view validUtf8) {
  Decomposer decomposer;
  const auto* data = reinterpret_cast<const std::uint8_t*>(validUtf8.data());
  const auto size = static_cast<std::int64_t>(validUtf8.size());
  for (std::int64_t i = 0; i < size;) {
    UChar32 codePoint;
    U8_NEXT_UNSAFE(data, i, codePoint);
    decomposer.add(codePoint);
  }
  return decomposer.finish();
}

}  // namespace

void Text::set(std::string validUtf8, std::size_t asciiLength) {
  bytes_ = std::move(validUtf8);
  canonical_.reset();
  if (asciiLength != bytes_.size()) {
    std::string canonical = decompose(bytes_);
    if (canonical != bytes_) canonical_ = std::make_shared<const std::string>(std::move(canonical));
  }
}

std::size_t Text::hash() const {
  static const KeyedHash::Key key = [] {
    KeyedHash::Key random;
    // So few bytes never come short.
    if (::getrandom(random.data(), sizeof random, 0) < 0) stopProcess(ExitStatus::software);
    return random;
  }();
  return static_cast<std::size_t>(KeyedHash::of(canonical(), key));
}

bool Text::isUtf8(std::string_view bytes) {
  return isUtf8From(bytes, asciiPrefixLength(bytes));
}

std::optional<Text> Text::fromUtf8(std::string bytes) {
  std::optional<Text> text;
  const std::size_t asciiLength = asciiPrefixLength(bytes);
  if (isUtf8From(bytes, asciiLength)) text.emplace().set(std::move(bytes), asciiLength);
  return text;
}

bool Text::assignUtf8(std::string_view bytes) {
  const std::size_t asciiLength = asciiPrefixLength(bytes);
  const bool isUtf8 = isUtf8From(bytes, asciiLength);
  if (isUtf8) set(std::string(bytes), asciiLength);
  return isUtf8;
}

Text operator+(const Text& a, const Text& b) {
  Text both;
  std::string bytes = a.bytes_ + b.bytes_;
  const std::size_t asciiLength = asciiPrefixLength(bytes);
  both.set(std::move(bytes), asciiLength);
  return both;
}

Text operator""_text(const char* literal, std::size_t length) {
  std::optional<Text> text = Text::fromUtf8(std::string(literal, length));
  if (!text) stopProcess(ExitStatus::software);
  return *std::move(text);
}

}  // namespace Platform
