// Text from outside: as identifiers that are compared, and as lines that are shown.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/Text.h"

using namespace Platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string shown = escaped(bytes);
  require(Text::isUtf8(shown));
  for (const char c : shown) require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);

  const auto text = Text::fromUtf8(bytes);
  require(text.has_value() == Text::isUtf8(bytes));
  if (!text) return 0;
  require(text->utf8() == bytes && *text == *text);
  // Joined from two halves, each with a canonical form of its own, it is the same text.
  for (const std::size_t cut : {size / 3, size / 2}) {
    const auto head = Text::fromUtf8(bytes.substr(0, cut));
    const auto tail = Text::fromUtf8(bytes.substr(cut));
    if (!head || !tail) continue;
    const Text joined = *head + *tail;
    require(joined == *text && joined.hash() == text->hash() && (joined <=> *text) == 0);
    require((*head == *tail) == ((*head <=> *tail) == 0));
    if (*head == *tail) require(head->hash() == tail->hash());
  }
  return 0;
}
