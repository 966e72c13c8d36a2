#include "Platform/Workspace/CheckIns.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <sstream>

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
  const std::string longest(222, 'x'), longestEscaped(74, '/'), withNul("a\0b", 3);
  for (const std::string& identifier : std::initializer_list<std::string>{
           "com.example.App", "", ".", "..", "/", "../x", "a@b", "%41", "\n\x1b[2J", "caf\u00e9",
           "\U0001F4C5", withNul, longest, longestEscaped}) {
    SCOPED_TRACE(identifier);
    UniqueFd application = checkIn(text(identifier));
    ASSERT_TRUE(application.isValid());
    const std::string name = CheckIns::names(folder).at(0);
    EXPECT_EQ(CheckIns::bundleIdentifierOf(name).value().utf8(), identifier);
    EXPECT_EQ(running(text(identifier)), 1u);
    application.reset();
    EXPECT_EQ(running(text(identifier)), 0u);
    EXPECT_TRUE(std::filesystem::is_empty(folder));
  }
  EXPECT_FALSE(checkIn(text(longest + "x")).isValid());
  EXPECT_FALSE(checkIn(text(longestEscaped + "/")).isValid());
  const UniqueFd precomposed = checkIn(text("caf\u00e9"));
  EXPECT_EQ(running(text("cafe\u0301")), 1u);
  EXPECT_EQ(running(text("CAF\u00c9")), 0u);
}

TEST_F(CheckInsTest, StrangersFilesNeverCountAndStayAsTheyWere) {
  const UniqueFd application = checkIn("a"_text);
  const std::string real = CheckIns::names(folder).at(0);
  const std::string unique(32, '0');
  const auto at = [&](std::string name) {
    if (const auto mark = name.find('$'); mark != name.npos) name.replace(mark, 1, unique);
    return (folder / name).string();
  };
  ASSERT_EQ(::mkfifo(at("a@$").c_str(), 0600) + ::mkfifo(at(".$").c_str(), 0600), 0);
  ASSERT_EQ(::mkdir(at("d@$").c_str(), 0700) + ::symlink(real.c_str(), at("c@$").c_str()), 0);
  std::istringstream badNames("a @ a@0 a@$0 a@$@ %61@$ .a@$ %2f@$ %4@$ %zz@$ %FF@$ \xff@$ " +
                              std::string(255, 'x'));
  std::ptrdiff_t files = 5;
  for (std::string name; badNames >> name; ++files) {
    ASSERT_TRUE(std::ofstream(at(name))) << name;
    EXPECT_FALSE(CheckIns::bundleIdentifierOf(std::filesystem::path(at(name)).filename().native()));
  }
  EXPECT_EQ(running("a"_text), 1u);
  EXPECT_EQ(running("c"_text) + running("d"_text), 0u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), files);

  // Of our own form and not locked: what ended applications have left.
  std::filesystem::remove(at(".$"));
  for (const char* name : {"b@$", ".$"}) std::ofstream{at(name)};
  EXPECT_EQ(running("b"_text), 0u);
  EXPECT_FALSE(std::filesystem::exists(at("b@$")) || std::filesystem::exists(at(".$")));
}

TEST_F(CheckInsTest, WhoeverChecksInRemovesSomeOfWhatEndedOnesLeft) {
  const auto files = [&] { return std::distance(std::filesystem::directory_iterator(folder), {}); };
  std::vector<UniqueFd> running;
  running.push_back(checkIn("a"_text));
  for (int i = 100; i < 200; ++i) {
    std::ofstream(folder / ((i % 2 == 0 ? "a@" : ".") + std::string(29, '0') + std::to_string(i)));
  }
  running.push_back(checkIn("a"_text));
  EXPECT_GT(files(), 50) << "there may be very many";
  for (int i = 0; i < 5; ++i) running.push_back(checkIn("a"_text));
  EXPECT_EQ(files(), 7) << "those that run";
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

TEST_F(CheckInsTest, NothingIsTakenForGoneWithoutADescriptorToLookWith) {
  const UniqueFd application = checkIn("a"_text);
  const std::string name = CheckIns::names(folder).at(0);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto presence = CheckIns::presence(folder, name);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(presence, CheckIns::Presence::unknown);
}

}  // namespace
}  // namespace Platform
