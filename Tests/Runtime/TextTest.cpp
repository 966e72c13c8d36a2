#include "Platform/Runtime/Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "Platform/Runtime/SipHash.h"
#include "Platform/Runtime/Words.h"
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

// A keyless hash in use, MurmurHash64A, takes each word of eight bytes through a function that can
// be undone, and then to the sum by exclusive or and by an odd factor: so two words with the
// highest bit changed in both leave the sum as it was, whatever stands before them and behind.
std::vector<std::string> collisions() {
  constexpr std::uint64_t factor = 0xc6a4a7935bd1e995, inverse = 0x5f7a0ea7e59b19bd;
  const auto changed = [](std::uint64_t word) {
    word *= factor;
    word = (word ^ word >> 47) * factor ^ std::uint64_t{1} << 63;
    word *= inverse;
    return (word ^ word >> 47) * inverse;
  };
  const auto bytes = [](std::uint64_t word) {
    return std::string(reinterpret_cast<const char*>(&word), sizeof word);
  };
  std::vector<std::string> pairs, all = {""};
  std::mt19937_64 random;
  while (pairs.empty()) {
    const std::uint64_t word = random() & ~highBits;
    if ((changed(word) & highBits) == 0) {
      pairs = {bytes(word) + bytes(word), bytes(changed(word)) + bytes(changed(word))};
    }
  }
  for (int doubled = 0; doubled < 12; ++doubled) {
    for (std::size_t i = all.size(); i-- > 0; all[i] += pairs[0]) all.push_back(all[i] + pairs[1]);
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
    hashes.insert(text(std::string(400, 'x').replace(i, 1, "y")).hash());
  }
  EXPECT_EQ(hashes.size(), 402u);
  // The key is this process's own. The zero key's hash of these bytes is known elsewhere, too.
  EXPECT_EQ(SipHash::of("abcdefgh", {0, 0}), 4574395652268504554u);
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
