#include "Platform/Workspace/CheckIns.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Platform/Workspace/NSRunningApplication.h"
#include "Tests/Workspace/Launching.h"

namespace Platform {
namespace {

using namespace TestSupport;
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
       {std::string("com.example.App"), std::string(), std::string(".."),
        std::string("../../etc/passwd"), std::string("a\0b", 3), std::string("a@b"),
        std::string("%41"), std::string("caf\u00e9"), std::string(222, 'x')}) {
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
  const std::string badNames[] = {"a",
                                  "@",
                                  "a@" + other,
                                  "a@" + unique + "0",
                                  "a@A" + other,
                                  "a@" + unique + "@" + unique,
                                  "%61@" + unique,
                                  "%4@" + unique,
                                  "%FF@" + unique,
                                  "\xff@" + unique};
  for (const std::string& name : badNames) ASSERT_TRUE(std::ofstream(folder / name)) << name;
  EXPECT_EQ(running("a"_text), 1u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}),
            static_cast<std::ptrdiff_t>(5 + std::size(badNames)));
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
