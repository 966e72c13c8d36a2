#include "Platform/Runtime/Text.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace Platform {
namespace {

Text text(std::string bytes) {
  return Text::fromUtf8(std::move(bytes)).value();
}

TEST(Text, IsEqualWhenCanonicallyEquivalent) {
  struct Case {
    const char* a;
    const char* b;
    bool equal;
  };
  const Case cases[] = {
      {"abc", "abc", true},
      {"abc", "ABC", false},
      {"caf\u00e9", "cafe\u0301", true},
      {"\u00c5", "\u212b", true},                    // A with ring; the angstrom sign
      {"\ud55c", "\u1112\u1161\u11ab", true},        // a Hangul syllable and its letters
      {"q\u0307\u0323", "q\u0323\u0307", true},      // marks of two classes in either order
      {"q\u0307\u0301", "q\u0301\u0307", false},     // marks of one class keep their order
      {"\u1e9b\u0323", "\u017f\u0323\u0307", true},  // decomposes and reorders
      {"\ufb01", "fi", false},                       // compatibility is not equivalence
      {"\u0344", "\u0308\u0301", true},              // a mark that decomposes into two marks
      {"\U0001d15e", "\U0001d157\U0001d165", true},  // beyond the basic plane
  };
  for (const Case& c : cases) {
    const Text a = text(c.a);
    const Text b = text(c.b);
    EXPECT_EQ(a == b, c.equal) << c.a << " and " << c.b;
    EXPECT_EQ(std::unordered_set<Text>({a, b}).size(), c.equal ? 1u : 2u) << c.a;
    EXPECT_EQ(a.utf8(), c.a) << "the text stays as it was given";
    EXPECT_EQ((a <=> b) == 0, c.equal);
  }
}

TEST(Text, HoldsNulsAndRefusesWhatIsNotUtf8) {
  EXPECT_NE(text(std::string("a\0b", 3)), text(std::string("a\0c", 3)));
  for (const char* bytes : {"\x80", "abcdefghij\xff", "\xc0\x80", "\xe2\x82", "\xed\xa0\x80",
                            "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xc3"}) {
    EXPECT_FALSE(Text::fromUtf8(bytes)) << bytes;
  }
  EXPECT_TRUE(Text::fromUtf8("\xf4\x8f\xbf\xbf"));
}

}  // namespace
}  // namespace Platform
