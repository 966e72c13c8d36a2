// The agent ends and comes back; what applications offer is there again.

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "Platform/XPC/NamedService.h"
#include "Platform/XPC/ServiceWatch.h"
#include "Platform/XPC/Socket.h"
#include "Tests/Support/AgentTest.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using TestSupport::ChildProcess;
using TestSupport::eventually;

class Applications : public AgentTest {
 protected:
  static void kill(ChildProcess& agent) {
    agent.signal(SIGKILL);
    agent.wait();
  }
  void registers(const EndpointRef& endpoint, const Text& identifier) {
    EXPECT_EQ(handler->registerEndpoint(endpoint, identifier), true);
  }

  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  const std::shared_ptr<NSXPCListener> other = NSXPCListener::anonymousListener();
  std::shared_ptr<EndPointHandler> handler = connect();
};

TEST_F(Applications, AreRegisteredWithEachNextAgentForWhatTheyStillOfferAndHoldNothingMore) {
  const auto holds = [](std::size_t count) {
    return eventually([&] { return TestSupport::openDescriptors(::getpid()) == count; });
  };
  ChildProcess agent = startAgent();
  const std::size_t atFirst = TestSupport::openDescriptors(::getpid());
  const auto* const connection = handler->agentConnection().get();
  registers(listener->endpoint(), "removed"_text);
  handler->removeEndpoint("removed"_text);
  auto ended = NSXPCListener::anonymousListener();
  registers(ended->endpoint(), "ended"_text);
  ended.reset();
  EXPECT_TRUE(holds(atFirst + 1)) << "the connection";
  const auto foreign = handler->retrieveEndpoint("ended"_text);
  ASSERT_TRUE(foreign && *foreign);
  registers(*foreign, "foreign"_text);
  EXPECT_EQ(connect()->registerEndpoint(listener->endpoint(), "of a handle that went"_text), true);
  registers(listener->endpoint(), "replaced"_text);
  registers(other->endpoint(), "replaced"_text);
  for (int i = 0; i < 3; ++i) {
    kill(agent);
    EXPECT_EQ(handler->registerEndpoint(other->endpoint(), "replaced"_text), std::nullopt);
    agent = startAgent();
    EXPECT_TRUE(eventually([] { return found("replaced"_text) != 0; }));
    EXPECT_EQ(found("replaced"_text), inode(other->endpoint()));
    // The handle asked for all of them at once, on one connection: what it asks now is answered
    // later.
    for (int times = 0; times < 3; ++times) EXPECT_TRUE(handler->retrieveEndpoint({}));
    for (const Text& identifier :
         {"removed"_text, "ended"_text, "foreign"_text, "of a handle that went"_text}) {
      EXPECT_EQ(found(identifier), 0u) << identifier.utf8();
    }
    EXPECT_TRUE(holds(atFirst + 2));
  }
  EXPECT_EQ(handler->agentConnection().get(), connection);
  kill(agent);
  handler.reset();
  EXPECT_TRUE(holds(atFirst + 1)) << "the foreign endpoint";
}

TEST_F(Applications, ReachTheAgentAgainAfterWantOfDescriptors) {
  if (TestSupport::isSanitized) GTEST_SKIP() << "a sanitizer wants descriptors too";
  ChildProcess agent = startAgent();
  registers(listener->endpoint(), "a"_text);
  const auto lowestFree = static_cast<rlim_t>(UniqueFd(::dup(0)).get());
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit tight{lowestFree + 2, limit.rlim_max};
  agent.stop();
  for (int i = 0; i < 20; ++i) handler->retrieveEndpoint("a"_text, [](auto) {});
  ::setrlimit(RLIMIT_NOFILE, &tight);
  agent.signal(SIGCONT);
  handler->retrieveEndpoint({});
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(eventually([&] { return handler->retrieveEndpoint("a"_text); }));
}

TEST_F(Applications, DoNotReplaceWhatOthersRegisteredMeanwhile) {
  ChildProcess agent = startAgent();
  const int socket = ::dup(0);  // the lowest free number: the connection's socket takes it next
  ::close(socket);
  registers(listener->endpoint(), "contested"_text);
  registers(listener->endpoint(), "restored"_text);
  const auto stranger = connect();
  stranger->removeEndpoint("restored"_text);
  EXPECT_EQ(stranger->registerEndpoint(other->endpoint(), "contested"_text), true);

  ASSERT_EQ(::shutdown(socket, SHUT_RDWR), 0);
  EXPECT_TRUE(eventually([&] { return found("restored"_text) == inode(listener->endpoint()); }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(handler->retrieveEndpoint({}));
  EXPECT_EQ(found("contested"_text), inode(other->endpoint()));
}

TEST_F(Applications, MayDropTheirHandleInsideItsOwnCallAndElsewhereMeanwhile) {
  ChildProcess agent = startAgent();
  for (int i = 0; i < 200; ++i) {
    auto own = connect();
    EXPECT_EQ(own->registerEndpoint(listener->endpoint(), "a"_text), true);
    std::promise<void> answered;
    own->retrieveEndpoint("a"_text, [own, &answered](auto) mutable {
      own.reset();
      answered.set_value();
    });
    own.reset();
    answered.get_future().wait();
  }
}

TEST_F(Applications, LearnWhenAServiceAppears) {
  const auto queue = dispatch_queue_create("appearance", DISPATCH_QUEUE_SERIAL);
  std::promise<void> own, managers;  // each may be kept only once
  [[maybe_unused]] const auto watches = {
      ServiceWatch::start("own"_text, queue, [&] { own.set_value(); }),
      ServiceWatch::start("manager's"_text, queue, [&] { managers.set_value(); })};
  const auto service = NSXPCListener::initWithMachServiceName("own"_text);
  service->resume();
  own.get_future().wait();
  EXPECT_EQ(connectTo(*namedServicePath("own"_text)).outcome, ConnectOutcome::connected);
  const UniqueFd socket = bindTo(*namedServicePath("manager's"_text));
  EXPECT_TRUE(listenOn(socket.get()));
  managers.get_future().wait();
}

// The service manager has the socket, and starts the agent when somebody connects: here it sees the
// handles come by themselves.
TEST_F(Applications, MayRegisterBeforeThereIsAnAgentAndAwakenIt) {
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "waiting"_text), std::nullopt);
  const auto asynchronous = connect();
  asynchronous->registerEndpoint(listener->endpoint(), "asynchronous"_text, {});
  const UniqueFd socket = bindTo(socketPath());
  ASSERT_TRUE(listenOn(socket.get()));
  pollfd visitor{socket.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&visitor, 1, 60'000), 1);
  const UniqueFd inherited(::dup(socket.get()));
  const ChildProcess agent =
      startAgent("LISTEN_FDS=1 LISTEN_PID=$$ LISTEN_FDNAMES=" + agentAppBundleIdentifier.utf8() +
                 " exec \"$0\" 2>/dev/null 3<&" + std::to_string(inherited.get()));
  EXPECT_TRUE(eventually([&] { return found("waiting"_text) && found("asynchronous"_text); }));
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
