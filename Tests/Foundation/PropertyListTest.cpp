#include "Platform/Foundation/PropertyList.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

namespace Platform {
namespace {

std::string list(const std::string& content) {
  return "<plist version=\"1.0\">" + content + "</plist>";
}
std::optional<Value> read(const std::string& content) {
  return propertyListFromData(list(content));
}

Data bytes(std::string_view text) {
  const auto* first = reinterpret_cast<const std::byte*>(text.data());
  return Data(first, first + text.size());
}

std::string nested(std::size_t depth) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += "<array>";
  for (std::size_t i = 0; i < depth; ++i) text += "</array>";
  return text;
}

TEST(PropertyList, ReadsEveryType) {
  const std::pair<const char*, Value> cases[] = {
      {"<string> a &lt;&amp;&#233; <![CDATA[<b>]]>\n</string>", " a <&\u00e9 <b>\n"_text},
      {"<string/>", Text()},
      {"<integer> -42\n</integer>", -42},
      {"<integer>+7</integer>", 7u},
      {"<integer>-0</integer>", 0},
      {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
      {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
      {"<integer>0xfF</integer>", 255},
      {"<integer>-0x10</integer>", -16},
      {"<real>-2.5e3</real>", -2500.0},
      {"<real>-infinity</real>", -std::numeric_limits<double>::infinity()},
      {"<true/>", true},
      {"<false> </false>", false},
      {"<date>2016-02-29T14:07:09Z</date>", NSDate{1456754829}},
      {"<date>1601-01-01T00:00:00Z</date>", NSDate{-11644473600}},
      {"<data/>", Data()},
      {"<data>\n\tAP+A\n\tYQ==\n</data>", bytes({"\0\xff\x80\x61", 4})},
      {"<data>/+8=</data>", bytes("\xff\xef")},
      {"<array/>", Array()},
      {"<dict/>", Dictionary()},
      {"<array><true/> <!-- x --><?y z?><array><string>b</string></array></array>",
       Array{true, Array{"b"_text}}},
      {"<dict><key>k</key><dict><key/><integer>1</integer></dict></dict>",
       Dictionary{{"k"_text, Dictionary{{Text(), 1}}}}},
      {"<dict><key>\u00e9</key><true/><key>e\u0301</key><false/></dict>",
       Dictionary{{"\u00e9"_text, false}}},
  };
  for (const auto& [content, value] : cases) EXPECT_EQ(read(content), value) << content;
  EXPECT_TRUE(std::isnan(read("<real>nan</real>")->asReal().value()));
}

TEST(PropertyList, IsNoneWhenBroken) {
  // One after the other, between bars.
  std::istringstream broken(
      R"(|text|<true/><false/>|<true/>x|<string>|<other/>|<plist><true/></plist>|<key>k</key>|)"
      R"(<array><key>k</key></array>|<dict><key>k</key></dict>|<dict><true/></dict>|)"
      R"(<dict><key>k</key><key>l</key><true/></dict>|<dict>x<key>k</key><true/></dict>|)"
      R"(<string><true/></string>|<true>x</true>|<string>&undefined;</string>|)"
      R"(<string>&#0;</string>|<integer/>|<integer>-</integer>|<integer>--1</integer>|)"
      R"(<integer>1 2</integer>|<integer>0x</integer>|<integer>1.0</integer>|)"
      R"(<integer>18446744073709551616</integer>|<integer>-9223372036854775809</integer>|)"
      R"(<real/>|<real>1,5</real>|<real>--1</real>|<real>1e999</real>|<date/>|)"
      R"(<date>2015-02-29T00:00:00Z</date>|<date>2016-02-29T24:00:00Z</date>|)"
      R"(<date>2016-02-29 00:00:00Z</date>|<data>AP+</data>|<data>A===</data>|)"
      R"(<data>AP=A</data>|<data>AP*A</data>)");
  for (std::string content; std::getline(broken, content, '|');) {
    EXPECT_EQ(read(content), std::nullopt) << content;
  }
  for (const char* const document :
       {"", "bplist00", "<dict/>", "<plist><true/></plist><plist/>",
        "<plist><string>\xff</string></plist>",
        "<?xml version='1.0' encoding='EBCDIC'?><plist><true/></plist>"}) {
    EXPECT_EQ(propertyListFromData(document), std::nullopt) << document;
  }
}

TEST(PropertyList, RefusesWhatADocumentTypeDeclares) {
  for (const std::string type :
       {"[<!ENTITY a 'b'>]", "[<!ENTITY a SYSTEM 'file:///etc/passwd'>]",
        "SYSTEM 'x' [<!ENTITY % p SYSTEM 'y'> %p;]", "[ ]", "SYSTEM 'declares a?'"}) {
    const std::string document = "<!DOCTYPE plist " + type + ">" + list("<string>&a;</string>");
    EXPECT_EQ(propertyListFromData(document), std::nullopt) << type;
  }
  EXPECT_EQ(propertyListFromData("<!DOCTYPE plist [ ]>" + list("<true/>")), std::nullopt);
}

TEST(PropertyList, IsBoundedInDepthAndSize) {
  EXPECT_TRUE(read(nested(propertyListDepthLimit)));
  EXPECT_EQ(read(nested(propertyListDepthLimit + 1)), std::nullopt);
  EXPECT_EQ(read(nested(100'000)), std::nullopt);
  const std::size_t frame = list("<string></string>").size();
  const auto ofSize = [&](std::size_t size) {
    return "<string>" + std::string(size - frame, 'a') + "</string>";
  };
  EXPECT_TRUE(read(ofSize(propertyListSizeLimit)));
  EXPECT_EQ(read(ofSize(propertyListSizeLimit + 1)), std::nullopt);
}

TEST(PropertyList, ReadsRegularFilesOnly) {
  const std::filesystem::path folder =
      std::filesystem::path(testing::TempDir()) / ("property-list-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  const std::string file = folder / "file";
  std::ofstream(file) << list("<true/>");
  EXPECT_EQ(propertyListFromFile(file), Value(true));
  std::ofstream(file, std::ios::app) << std::string(propertyListSizeLimit, ' ');
  EXPECT_EQ(propertyListFromFile(file), std::nullopt) << "too large";
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path :
       {pipe, folder.string(), (folder / "missing").string(), std::string("/dev/zero")}) {
    EXPECT_EQ(propertyListFromFile(path), std::nullopt) << path;
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace Platform
