#include "Platform/Runtime/Escaped.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "Platform/Runtime/Words.h"

namespace Platform {
namespace {

bool isPlain(char c) {
  return c >= 0x20 && c < 0x7F && c != '\\';
}

// Each term of the alarm has a byte's high bit set where that byte is not plain; borrows only add
// false alarms.
bool areAllPlain(std::string_view text) {
  const std::size_t i = lengthWithoutAlarm(text, [](std::uint64_t word) {
    constexpr std::uint64_t ones = highBits >> 7;
    const std::uint64_t backslash = (word ^ ones * '\\') - ones;
    const std::uint64_t erased = (word ^ ones * 0x7F) - ones;
    const std::uint64_t control = word - ones * 0x20;
    return word | backslash | erased | control;
  });
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(), isPlain);
}

void appendCode(std::string& out, const char* format, unsigned code) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, format, code);
  out += buffer;
}

}  // namespace

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
    const std::uint32_t category = U_GET_GC_MASK(codePoint);
    if (codePoint == '\\') {
      out += "\\\\";
    } else if (codePoint < 0x80 && (category & U_GC_CC_MASK) != 0) {
      appendCode(out, "\\x%02x", static_cast<unsigned>(codePoint));
    } else if ((category & (U_GC_CC_MASK | U_GC_ZL_MASK | U_GC_ZP_MASK)) != 0 ||
               u_hasBinaryProperty(codePoint, UCHAR_BIDI_CONTROL)) {
      appendCode(out, "\\u{%x}", static_cast<unsigned>(codePoint));
    } else {
      out.append(utf8.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
    }
  }
}

}  // namespace Platform
