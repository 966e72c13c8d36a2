#include "Platform/Workspace/Opening.h"

#include <sys/stat.h>

#include "Tests/Support/StandInOpeners.h"

namespace Platform {
namespace {

TEST(Opening, HandsOverExactlyWhatIsToBeOpened) {
  TestSupport::StandInOpeners openers;
  openers.add("xdg-open", "");
  EXPECT_NE(missingOpener().find("xdg-email"), std::string::npos);
  openers.add("xdg-email", "");
  EXPECT_EQ(missingOpener(), "");
  ::signal(SIGCHLD, SIG_IGN);  // as a process may inherit it
  EXPECT_TRUE(openAddress("https://a.example/?q='b c'&$(d);`e`"));
  EXPECT_EQ(openers.arguments(), "xdg-open|https://a.example/?q='b c'&$(d);`e`|");
  EXPECT_TRUE(openMail({"a@b.example", "c", "/d e"}));
  EXPECT_EQ(openers.arguments(), "xdg-email|--utf8|--subject|c|--attach|/d e|a@b.example|");
  EXPECT_FALSE(openAddress("--version"));
  EXPECT_FALSE(openAddress(std::string("a\0b", 3)));
  EXPECT_FALSE(openMail({"--attach", "c", std::nullopt}));
  EXPECT_EQ(openers.arguments(), "") << "would be taken for something else";
}

TEST(Opening, FailsWhenTheOpenerDoes) {
  TestSupport::StandInOpeners openers;
  EXPECT_FALSE(openAddress("a:b")) << "there is none";
  for (const char* const end : {"exit 4", "kill -9 $$"}) {
    openers.add("xdg-open", end);
    EXPECT_FALSE(openAddress("a:b")) << end;
  }
  std::filesystem::permissions(openers.file("xdg-open"), std::filesystem::perms::owner_read);
  EXPECT_FALSE(openAddress("a:b")) << "not a program";
}

TEST(Opening, LeavesAnOpenerThatStaysToRunAndTakesItsEndLater) {
  TestSupport::StandInOpeners openers;
  ASSERT_EQ(::mkfifo(openers.file("end").c_str(), 0600), 0);
  openers.add("xdg-open", "echo $$ > " + openers.file("pid") + "; read x < " + openers.file("end") +
                              "; exit 1");
  EXPECT_TRUE(openAddress("a:b"));
  pid_t opener = 0;
  std::ifstream(openers.file("pid")) >> opener;
  ASSERT_GT(opener, 0);
  EXPECT_EQ(::kill(opener, 0), 0) << "still running";
  std::ofstream(openers.file("end")) << "now\n";
  EXPECT_TRUE(TestSupport::eventually([opener] { return ::kill(opener, 0) != 0; })) << "a zombie";
}

}  // namespace
}  // namespace Platform
