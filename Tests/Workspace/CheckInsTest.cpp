#include "Platform/Workspace/CheckIns.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "Platform/Workspace/NSRunningApplication.h"
#include "Tests/Workspace/Launching.h"

namespace Platform {
namespace {

using namespace TestSupport;
using namespace std::string_literals;
using CheckIns::checkIn;

class CheckInsTest : public RunningApplicationsTest {};

std::size_t running(const Text& identifier) {
  return NSRunningApplication::runningApplicationsWithBundleIdentifier(identifier).size();
}

Text text(std::string bytes) {
  return Text::fromUtf8(std::move(bytes)).value();
}

TEST_F(CheckInsTest, AnyTextThatFitsIsAnIdentifierThatOthersFind) {
  for (const std::string& identifier :
       {"com.example.App"s, ""s, ".."s, "../../etc/passwd"s, "a\0b"s, "a@b"s, "%41"s, "caf\u00e9"s,
        std::string(222, 'x')}) {
    UniqueFd first = checkIn(text(identifier));
    ASSERT_TRUE(first.isValid()) << identifier;
    UniqueFd second = checkIn(text(identifier));
    EXPECT_EQ(running(text(identifier)), 2u) << identifier;
    first.reset();
    EXPECT_EQ(running(text(identifier)), 1u) << identifier;
    second.reset();
    EXPECT_EQ(running(text(identifier)), 0u) << identifier;
    EXPECT_TRUE(std::filesystem::is_empty(folder)) << identifier;
  }
  EXPECT_FALSE(checkIn(text(std::string(223, 'x'))).isValid());
  EXPECT_FALSE(checkIn(text(std::string(75, '/'))).isValid());
  std::filesystem::permissions(runtime.path(), std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
  EXPECT_FALSE(checkIn("a"_text).isValid()) << "no private directory";
}

TEST_F(CheckInsTest, StrangersFilesNeverCountAndStayAsTheyWere) {
  const UniqueFd application = checkIn("a"_text);
  const std::string real = CheckIns::names(folder).at(0);
  const std::string unique(32, '0'), other(31, '0');
  ASSERT_EQ(::mkfifo((folder / ("a@" + unique)).c_str(), 0600), 0);
  std::filesystem::create_directory(folder / ("a@1" + other));
  std::filesystem::create_symlink(real, folder / ("a@2" + other));
  std::filesystem::create_symlink("nowhere", folder / ("a@3" + other));
  // Names that none of ours has: X stands for 31 digits.
  std::istringstream badNames("a @ a@X a@0X0 a@AX a@0X@0X %61@0X %4@0X %FF@0X");
  for (std::string name; badNames >> name;) {
    for (auto x = name.find('X'); x != name.npos; x = name.find('X')) name.replace(x, 1, other);
    ASSERT_TRUE(std::ofstream(folder / name)) << name;
  }
  EXPECT_EQ(running("a"_text), 1u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 14);
  // Of our own form and not locked: what ended applications have left.
  for (const std::string& name : {"b@" + unique, "." + unique}) {
    std::ofstream(folder / name);
    EXPECT_EQ(running("b"_text), 0u);
    EXPECT_FALSE(std::filesystem::exists(folder / name)) << name;
  }
}

TEST_F(CheckInsTest, AnApplicationIsItsBundleAndWithoutOneChecksInNowhere) {
  EXPECT_EQ(ChildProcess({testApplication}).readLine(), "none");
  const auto contents = std::filesystem::path(runtime.path()) / "Test.app/Contents";
  std::filesystem::create_directories(contents / "Linux");
  std::filesystem::copy(testApplication, contents / "Linux/test");
  std::ofstream(contents / "Info.plist")
      << "<plist><dict><key>CFBundleIdentifier</key><string>com.example.T</string></dict></plist>";
  ChildProcess process({contents / "Linux/test"});
  EXPECT_EQ(process.readLine(), "running");
  EXPECT_EQ(running("com.example.T"_text), 1u);
}

}  // namespace
}  // namespace Platform
