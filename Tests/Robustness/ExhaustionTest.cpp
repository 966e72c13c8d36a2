// What the agent has runs out: descriptors, room for descriptors under way, the log's reader.

#include <ctime>
#include <fstream>

#include "Tests/Robustness/AgentTest.h"
#include "Tests/Robustness/HostilePeer.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using TestSupport::ChildProcess;
using TestSupport::eventually;

class Exhausted : public AgentTest {
 protected:
  // The processor time that a process has used, in clock ticks of 10 ms.
  static long ticksOf(const ChildProcess& process) {
    std::ifstream stat("/proc/" + std::to_string(process.pid()) + "/stat");
    std::string word;
    long user = 0;
    long system = 0;
    for (int i = 1; i <= 13; ++i) stat >> word;
    stat >> user >> system;
    return user + system;
  }
};

TEST_F(Exhausted, DescriptorsMakeTheAgentWaitButNeverLieNorSpin) {
  constexpr int limit = 64;
  ChildProcess agent = startAgent("ulimit -n 64; exec \"$0\" 2>/dev/null");
  const auto listener = NSXPCListener::anonymousListener();
  const auto handler = connect();
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "first"_text), true);
  int stored = 0;
  const auto name = [](int number) { return *Text::fromUtf8("e" + std::to_string(number)); };
  while (handler->registerEndpoint(listener->endpoint(), name(stored)) == true) {
    ASSERT_LT(++stored, limit);
  }
  // Its connection has ended for want of room; others find no room to be accepted.
  std::vector<HostilePeer> visitors;
  for (int i = 0; i < 20; ++i) {
    visitors.emplace_back(socketPath());
    visitors.back().send(Frames::retrieve(1, "first"));
  }
  const long before = ticksOf(agent);
  const std::time_t start = std::time(nullptr);
  EXPECT_TRUE(eventually([&] { return std::time(nullptr) > start + 1; }));
  EXPECT_LE(ticksOf(agent) - before, 20) << "ticks in a second or two: it spins";

  // Each visitor that leaves makes room for the next, and each is answered.
  for (HostilePeer& visitor : visitors) {
    EXPECT_FALSE(visitor.read(Frames::nil(1).size()).empty());
    visitor = HostilePeer();
  }
  const auto remover = connect();
  EXPECT_TRUE(eventually([&] { return remover->retrieveEndpoint({}).has_value(); }));
  for (int i = 0; i < stored; ++i) remover->removeEndpoint(name(i));
  EXPECT_TRUE(eventually(
      [&] { return remover->registerEndpoint(listener->endpoint(), "last"_text) == true; }));
  EXPECT_EQ(found("last"_text), inode(listener->endpoint()));
  EXPECT_EQ(found(name(stored)), 0u) << "answered YES for nothing";
}

TEST_F(Exhausted, AStuckLogHoldsNothingUpAndCountsWhatItLost) {
  ChildProcess agent = startAgent("exec \"$0\"");
  const auto handler = connect();
  const std::string letters(2000, 'x');
  const Text identifier = *Text::fromUtf8(letters);
  constexpr int requests =
      5000;  // some 10 MB, of which the pipe and the logger hold less than half
  for (int i = 0; i < requests; ++i) ASSERT_TRUE(handler->retrieveEndpoint(identifier));
  long written = 0;
  long dropped = 0;
  while (written + dropped < requests) {
    const auto line = agent.readErrorLine();
    ASSERT_TRUE(line) << written << " + " << dropped;
    if (line->find(letters) != std::string::npos) ++written;
    const std::size_t end = line->find(" log lines dropped");
    if (end != std::string::npos) dropped += std::stol(line->substr(line->rfind(' ', end - 1)));
  }
  EXPECT_EQ(written + dropped, requests);
  EXPECT_GT(dropped, 0);
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
