#include "Platform/Workspace/Opening.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "Platform/Runtime/UniqueFd.h"
#include "Tests/Support/StandInOpeners.h"

namespace Platform {
namespace {

class Opening : public testing::Test {
 protected:
  TestSupport::StandInOpeners openers_;
};

TEST_F(Opening, HandsOverExactlyWhatIsToBeOpened) {
  openers_.add("xdg-open", "");
  openers_.add("xdg-email", "");
  EXPECT_TRUE(openAddress("https://a.example/?q='b c'&$(d);`e`"));
  EXPECT_EQ(openers_.arguments(), "xdg-open|https://a.example/?q='b c'&$(d);`e`|");
  EXPECT_TRUE(openMail({"a@b.example", "c", "/d e"}));
  EXPECT_EQ(openers_.arguments(), "xdg-email|--utf8|--subject|c|--attach|/d e|a@b.example|");
  EXPECT_FALSE(openAddress("--version"));
  EXPECT_FALSE(openAddress(std::string("a\0b", 3)));
  EXPECT_FALSE(openMail({"--attach", "c", std::nullopt}));
  EXPECT_EQ(openers_.arguments(), "") << "would be taken for something else";
}

TEST_F(Opening, FailsWhenTheOpenerDoes) {
  EXPECT_FALSE(openAddress("a:b")) << "there is none";
  for (const char* const end : {"exit 4", "kill -9 $$"}) {
    openers_.add("xdg-open", end);
    EXPECT_FALSE(openAddress("a:b")) << end;
  }
  std::filesystem::permissions(openers_.file("xdg-open"), std::filesystem::perms::owner_read);
  EXPECT_FALSE(openAddress("a:b")) << "not a program";
}

TEST_F(Opening, GivesTheOpenerNothingOfOurs) {
  const UniqueFd inherited(::dup(STDOUT_FILENO));
  openers_.add("xdg-open", "exec > " + openers_.file("seen") +
                               "; cat; ls -1 /proc/$$/fd; grep SigBlk /proc/$$/status");
  sigset_t blocked;
  sigset_t unblocked;
  ::sigfillset(&blocked);
  ::pthread_sigmask(SIG_SETMASK, &blocked, &unblocked);
  EXPECT_TRUE(openAddress("a:b"));
  ::pthread_sigmask(SIG_SETMASK, &unblocked, nullptr);
  std::ifstream seen(openers_.file("seen"));
  std::stringstream text;
  text << seen.rdbuf();
  EXPECT_NE(text.str().find("SigBlk:\t0000000000000000"), std::string::npos) << text.str();
  // The script itself is open as well, under a number that the shell chose.
  EXPECT_EQ(text.str().find("\n" + std::to_string(inherited.get()) + "\n"), std::string::npos);
}

TEST_F(Opening, LeavesAnOpenerThatStaysToRunAndTakesItsEndLater) {
  ASSERT_EQ(::mkfifo(openers_.file("end").c_str(), 0600), 0);
  openers_.add("xdg-open", "echo $$ > " + openers_.file("pid") + "; read x < " +
                               openers_.file("end") + "; exit 1");
  const std::size_t before = TestSupport::openDescriptors(::getpid());
  EXPECT_TRUE(openAddress("a:b"));
  pid_t opener = 0;
  std::ifstream(openers_.file("pid")) >> opener;
  ASSERT_GT(opener, 0);
  EXPECT_EQ(::kill(opener, 0), 0) << "still running";
  std::ofstream(openers_.file("end")) << "now\n";
  EXPECT_TRUE(TestSupport::eventually([opener] { return ::kill(opener, 0) != 0; })) << "a zombie";
  EXPECT_TRUE(TestSupport::eventually(
      [before] { return TestSupport::openDescriptors(::getpid()) == before; }));
}

}  // namespace
}  // namespace Platform
