#include "Platform/Runtime/Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Tests/Support/TestProcess.h"

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

// A keyless hash in use, MurmurHash64A, mixes each word of eight bytes, and takes it to the sum by
// exclusive or and by an odd factor. Mixed, these two words differ in the highest bit alone: either
// of them, twice, leaves the same sum, whatever stands before them and behind.
std::vector<std::string> collisions() {
  std::vector<std::string> all = {""};
  for (int doubled = 0; doubled < 12; ++doubled) {
    for (std::size_t i = all.size(); i-- > 0; all[i] += "&Ht klz{&Ht klz{") {
      all.push_back(all[i] + "&H1:\x06R\"\n&H1:\x06R\"\n");
    }
  }
  return all;
}

TEST(Text, HashesSoThatNobodyElseCanMakeTextsCollide) {
  for (const std::string& ahead : {std::string(), std::string(300, 'x')}) {
    std::unordered_set<Text> texts;
    for (const std::string& bytes : collisions()) texts.insert(text(ahead + bytes));
    ASSERT_EQ(texts.size(), 4096u);
    std::size_t fullest = 0;
    for (std::size_t i = 0; i < texts.bucket_count(); ++i) {
      fullest = std::max(fullest, texts.bucket_size(i));
    }
    EXPECT_LT(fullest, 30u);
  }
  // Every byte counts, and how many there are.
  std::unordered_set<std::size_t> hashes = {text(std::string(401, 'x')).hash()};
  for (std::size_t i = 0; i <= 400; ++i) {
    std::string other(400, 'x');
    if (i < other.size()) other[i] = 'y';
    hashes.insert(text(other).hash());
  }
  EXPECT_EQ(hashes.size(), 402u);
  // The key is this process's own.
  const std::string own = "hash " + std::to_string(text("a").hash());
  std::cout << own << std::endl;
  if (::getenv("GANTREL_TWIN")) return;
  TestSupport::ChildProcess twin(
      {"/proc/self/exe", "--gtest_filter=Text.HashesSoThatNobodyElseCanMakeTextsCollide"},
      {"GANTREL_TWIN=1"});
  const std::string said = twin.readAllOutput();
  EXPECT_NE(said.find("\nhash "), said.npos);
  EXPECT_EQ(said.find(own), said.npos);
}

}  // namespace
}  // namespace Platform
