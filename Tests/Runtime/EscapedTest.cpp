#include "Platform/Runtime/Escaped.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

TEST(Escaped, LetsNothingThroughThatCommandsATerminalOrForgesALine) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {"caf\u00e9 \U0001f600", "caf\u00e9 \U0001f600"},
      {"a\nb\r\t\x1b[31m\x7f", "a\\x0ab\\x0d\\x09\\x1b[31m\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"back\\x41", "back\\\\x41"},
      {"alone in a word\x7f", "alone in a word\\x7f"},
      {"\u0085 \u009b1m \u2028 \u202e \u2066", "\\u{85} \\u{9b}1m \\u{2028} \\u{202e} \\u{2066}"},
      {"\xff\xc3", "\\xff\\xc3"},
  };
  for (const auto& [text, safe] : cases) EXPECT_EQ(escaped(text), safe);
}

}  // namespace
}  // namespace Platform
