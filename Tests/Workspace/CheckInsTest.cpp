#include "Platform/Workspace/CheckIns.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fstream>

#include "Platform/Workspace/NSRunningApplication.h"
#include "Tests/Workspace/Launching.h"

namespace Platform {
namespace {

using namespace TestSupport;
using CheckIns::checkIn;

class CheckInsTest : public TestSupport::RunningApplicationsTest {};

std::size_t running(const Text& identifier) {
  return NSRunningApplication::runningApplicationsWithBundleIdentifier(identifier).size();
}

Text text(std::string bytes) {
  return Text::fromUtf8(std::move(bytes)).value();
}

TEST_F(CheckInsTest, AnyTextThatFitsIsAnIdentifierThatOthersFind) {
  const std::string identifiers[] = {"com.example.App",
                                     "",
                                     ".",
                                     "..",
                                     "/",
                                     "../../etc/passwd",
                                     std::string("a\0b", 3),
                                     "a@b",
                                     "%41",
                                     "\n\x1b[2J",
                                     "caf\u00e9",
                                     "\U0001F4C5",
                                     std::string(222, 'x'),
                                     std::string(74, '/')};
  for (const std::string& identifier : identifiers) {
    UniqueFd first = checkIn(text(identifier));
    ASSERT_TRUE(first.isValid()) << identifier;
    UniqueFd second = checkIn(text(identifier));
    EXPECT_EQ(running(text(identifier)), 2u) << identifier;
    for (const std::string& name : CheckIns::names(folder)) {
      EXPECT_EQ(CheckIns::bundleIdentifierOf(name).value().utf8(), identifier);
    }
    first.reset();
    EXPECT_EQ(running(text(identifier)), 1u) << identifier;
    second.reset();
    EXPECT_EQ(running(text(identifier)), 0u) << identifier;
    EXPECT_TRUE(std::filesystem::is_empty(folder)) << identifier;
  }
  EXPECT_FALSE(checkIn(text(std::string(223, 'x'))).isValid());
  EXPECT_FALSE(checkIn(text(std::string(75, '/'))).isValid());
  const UniqueFd precomposed = checkIn(text("caf\u00e9"));
  EXPECT_EQ(running(text("cafe\u0301")), 1u);
  EXPECT_EQ(running(text("CAF\u00c9")), 0u);
}

TEST_F(CheckInsTest, StrangersFilesNeverCountAndStayAsTheyWere) {
  const UniqueFd application = checkIn("a"_text);
  const std::string real = CheckIns::names(folder).at(0);
  const std::string unique(32, '0');
  const auto at = [&](const std::string& name) { return (folder / name).string(); };
  ASSERT_EQ(::mkfifo(at("a@" + unique).c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(at("." + unique).c_str(), 0600), 0);
  ASSERT_EQ(::mkdir(at("a@1" + unique.substr(1)).c_str(), 0700), 0);
  ASSERT_EQ(::symlink(real.c_str(), at("a@2" + unique.substr(1)).c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", at("a@3" + unique.substr(1)).c_str()), 0);
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  at("a@4" + unique.substr(1)).copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string badNames[] = {"a",
                                  "@",
                                  "a@" + unique.substr(1),
                                  "a@" + unique + "0",
                                  "a@A" + unique.substr(1),
                                  "a@" + unique + "@" + unique,
                                  "%61@" + unique,
                                  ".a@" + unique,
                                  "%2f@" + unique,
                                  "%4@" + unique,
                                  "%zz@" + unique,
                                  "%FF@" + unique,
                                  "\xff@" + unique,
                                  std::string(255, 'x')};
  for (const std::string& name : badNames) {
    ASSERT_TRUE(std::ofstream(folder / name)) << name;
    EXPECT_FALSE(CheckIns::bundleIdentifierOf(name)) << name;
  }
  EXPECT_EQ(running("a"_text), 1u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}),
            static_cast<std::ptrdiff_t>(7 + std::size(badNames)));

  // Of our own form and not locked: what ended applications have left.
  std::ofstream(folder / ("b@" + unique));
  std::filesystem::remove(folder / ("." + unique));
  std::ofstream(folder / ("." + unique));
  EXPECT_EQ(running("b"_text), 0u);
  EXPECT_FALSE(std::filesystem::exists(folder / ("b@" + unique)));
  EXPECT_FALSE(std::filesystem::exists(folder / ("." + unique)));
}

TEST_F(CheckInsTest, AnApplicationIsItsBundleAndWithoutOneChecksInNowhere) {
  EXPECT_EQ(ChildProcess({testApplication}).readLine(), "none");
  const auto contents = std::filesystem::path(runtime.path()) / "Test.app/Contents";
  std::filesystem::create_directories(contents / "Linux");
  std::filesystem::copy(testApplication, contents / "Linux/test");
  std::ofstream(contents / "Info.plist") << "<plist "
                                            "version=\"1.0\"><dict><key>CFBundleIdentifier</"
                                            "key><string>com.example.T</string></dict></plist>";
  ChildProcess process({contents / "Linux/test"});
  EXPECT_EQ(process.readLine(), "running");
  EXPECT_EQ(running("com.example.T"_text), 1u);
}

TEST_F(CheckInsTest, WithoutARuntimeDirectoryNothingRuns) {
  std::filesystem::permissions(runtime.path(), std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
  EXPECT_FALSE(checkIn("a"_text).isValid());
  EXPECT_EQ(running("a"_text), 0u);
}

}  // namespace
}  // namespace Platform
