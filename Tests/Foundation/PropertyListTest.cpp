#include "Platform/Foundation/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

namespace Platform {
namespace {

std::string list(const std::string& content) {
  return "<plist version=\"1.0\">" + content + "</plist>";
}
std::optional<Value> read(const std::string& content) {
  return propertyListFromData(list(content));
}

std::string nested(std::size_t depth) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text = "<array>" + text + "</array>";
  return text;
}

TEST(PropertyList, ReadsEveryType) {
  const std::pair<const char*, Value> cases[] = {
      {"<string> a &lt;&amp;&#233; <![CDATA[<b>]]>\n</string>", " a <&\u00e9 <b>\n"_text},
      {"<integer> -42\n</integer>", -42},
      {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
      {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
      {"<real>-2.5e3</real>", -2500.0},
      {"<false> </false>", false},
      {"<date>2016-02-29T14:07:09Z</date>", NSDate{1456754829}},
      {"<data>\n\t/+8=\n</data>", Data{std::byte{0xff}, std::byte{0xef}}},
      {"<array><true/> <!-- x --><?y z?><array><string/></array></array>",
       Array{true, Array{Text()}}},
      {"<dict><key>k</key><dict><key/><integer>1</integer></dict></dict>",
       Dictionary{{"k"_text, Dictionary{{Text(), 1}}}}},
      {"<dict><key>\u00e9</key><true/><key>e\u0301</key><false/></dict>",
       Dictionary{{"\u00e9"_text, false}}},
  };
  for (const auto& [content, value] : cases) EXPECT_EQ(read(content), value) << content;
}

TEST(PropertyList, IsNoneWhenBroken) {
  // One after the other, between bars.
  std::istringstream broken(
      R"(|text|<true/><false/>|<true/>x|<string>|<other/>|<plist><true/></plist>|<key>k</key>|)"
      R"(<array><key>k</key></array>|<dict><key>k</key></dict>|<dict><true/></dict>|)"
      R"(<dict><key>k</key><key>l</key><true/></dict>|<string><true/></string>|<true>x</true>|)"
      R"(<string>&undefined;</string>|<string>&#0;</string>|<integer/>|<integer>--1</integer>|)"
      R"(<integer>1 2</integer>|<integer>0x</integer>|<integer>18446744073709551616</integer>|)"
      R"(<integer>-9223372036854775809</integer>|<real/>|<real>1,5</real>|<real>1e999</real>|)"
      R"(<date>2015-02-29T00:00:00Z</date>|<date>2016-02-29T24:00:00Z</date>|<data>AP+</data>|)"
      R"(<data>A===</data>|<data>AP=A</data>|<data>AP*A</data>)");
  for (std::string content; std::getline(broken, content, '|');) {
    EXPECT_EQ(read(content), std::nullopt) << content;
  }
  for (const char* const document : {"", "bplist00", "<dict/>", "<plist>\xff</plist>"}) {
    EXPECT_EQ(propertyListFromData(document), std::nullopt) << document;
  }
  for (const std::string type : {"[ ]", "[<!ENTITY a SYSTEM 'file:///etc/passwd'>]",
                                 "SYSTEM 'x' [<!ENTITY % p SYSTEM 'y'> %p;]"}) {
    const std::string document = "<!DOCTYPE plist " + type + ">" + list("<true/>");
    EXPECT_EQ(propertyListFromData(document), std::nullopt) << type;
  }
}

TEST(PropertyList, IsBoundedInDepthAndSizeAndOfRegularFilesOnly) {
  EXPECT_TRUE(read(nested(propertyListDepthLimit)));
  EXPECT_EQ(read(nested(propertyListDepthLimit + 1)), std::nullopt);
  const std::string file = testing::TempDir() + "property-list-" + std::to_string(::getpid());
  std::string content = list("<true/>");
  content.resize(propertyListSizeLimit, ' ');
  std::ofstream(file) << content;
  EXPECT_EQ(propertyListFromFile(file), Value(true));
  std::ofstream(file, std::ios::app) << " ";
  EXPECT_EQ(propertyListFromFile(file), std::nullopt) << "too large";
  EXPECT_EQ(propertyListFromData(content + " "), std::nullopt);
  std::filesystem::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  for (const std::string& path : {file, testing::TempDir(), std::string("/dev/zero")}) {
    EXPECT_EQ(propertyListFromFile(path), std::nullopt) << path;
  }
  std::filesystem::remove(file);
}

}  // namespace
}  // namespace Platform
