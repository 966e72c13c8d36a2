#include "Platform/Runtime/Escaped.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>

#include "Platform/Runtime/Words.h"

namespace Platform {
namespace {

bool isPlain(char c) {
  return c >= 0x20 && c < 0x7F && c != '\\';
}

// Each term of the alarm has the high bit set where the byte is not plain.
bool areAllPlain(std::string_view text) {
  const std::size_t i = lengthWithoutAlarm(text, [](std::uint8_t byte) {
    const int backslash = (byte ^ '\\') - 1;
    const int erased = (byte ^ 0x7F) - 1;
    const int control = byte - 0x20;
    return static_cast<std::uint8_t>(byte | backslash | erased | control);
  });
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(), isPlain);
}

void appendCode(std::string& out, const char* format, unsigned code) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, format, code);
  out += buffer;
}

}  // namespace

bool isUnsafeToShow(char32_t codePoint) {
  const auto character = static_cast<UChar32>(codePoint);
  constexpr std::uint32_t unsafe = U_GC_CC_MASK | U_GC_ZL_MASK | U_GC_ZP_MASK;
  // Those that shape their neighbours are seen by what they do.
  return (U_GET_GC_MASK(character) & unsafe) != 0 ||
         (u_hasBinaryProperty(character, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) &&
          !u_hasBinaryProperty(character, UCHAR_JOIN_CONTROL) &&
          !u_hasBinaryProperty(character, UCHAR_VARIATION_SELECTOR));
}

std::string escaped(std::string_view utf8) {
  std::string out;
  appendEscaped(out, utf8);
  return out;
}

void appendEscaped(std::string& out, std::string_view utf8) {
  if (areAllPlain(utf8)) {
    out.append(utf8);
    return;
  }
  const auto* data = reinterpret_cast<const std::uint8_t*>(utf8.data());
  const auto size = static_cast<std::int64_t>(utf8.size());
  for (std::int64_t i = 0; i < size;) {
    const std::int64_t start = i;
    UChar32 codePoint;
    U8_NEXT(data, i, size, codePoint);
    if (codePoint < 0) {
      for (std::int64_t k = start; k < i; ++k) appendCode(out, "\\x%02x", data[k]);
      continue;
    }
    if (codePoint == '\\') {
      out += "\\\\";
    } else if (isUnsafeToShow(static_cast<char32_t>(codePoint))) {
      appendCode(out, codePoint < 0x80 ? "\\x%02x" : "\\u{%x}", static_cast<unsigned>(codePoint));
    } else {
      out.append(utf8.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
    }
  }
}

std::optional<std::string> unescaped(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('\\'), text.size());
    out.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (text.starts_with("\\\\")) {
      out += '\\';
      text.remove_prefix(2);
      continue;
    }
    const bool isByte = text.starts_with("\\x");
    const std::size_t end = isByte ? 4 : text.find('}');
    if (!(isByte || text.starts_with("\\u{")) || end > text.size()) return std::nullopt;
    const std::string_view digits = text.substr(isByte ? 2 : 3, end - (isByte ? 2 : 3));
    text.remove_prefix(isByte ? end : end + 1);
    if (digits.empty()) continue;
    std::uint32_t code = 0;
    const auto [rest, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    if (error != std::errc() || rest != digits.data() + digits.size()) return std::nullopt;
    if (isByte) {
      out += static_cast<char>(code);
      continue;
    }
    char utf8[U8_MAX_LENGTH];
    std::size_t length = 0;
    UBool isWrong = false;
    U8_APPEND(utf8, length, sizeof utf8, code, isWrong);
    if (isWrong) return std::nullopt;
    out.append(utf8, length);
  }
  return out;
}

}  // namespace Platform
