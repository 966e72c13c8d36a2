// The agent ends and comes back; what applications offer is there again.

#include <fcntl.h>
#include <poll.h>
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
};

TEST_F(Applications, AreRegisteredAgainWithTheNextAgentByTheSameConnection) {
  ChildProcess agent = startAgent();
  const auto first = NSXPCListener::anonymousListener();
  const auto second = NSXPCListener::anonymousListener();
  const auto handler = connect();
  const auto connection = handler->agentConnection();
  const auto proxy = handler->remoteObjectProxy();
  EXPECT_EQ(handler->registerEndpoint(first->endpoint(), "kept"_text), true);
  EXPECT_EQ(handler->registerEndpoint(first->endpoint(), "replaced"_text), true);
  EXPECT_EQ(handler->registerEndpoint(second->endpoint(), "replaced"_text), true);
  for (int i = 0; i < 3; ++i) {
    kill(agent);
    agent = startAgent();
    EXPECT_TRUE(eventually([&] { return found("kept"_text) == inode(first->endpoint()); }));
    EXPECT_TRUE(eventually([&] { return found("replaced"_text) == inode(second->endpoint()); }));
  }
  EXPECT_EQ(handler->agentConnection(), connection);
  EXPECT_EQ(handler->remoteObjectProxy(), proxy);
}

TEST_F(Applications, AreNotRegisteredAgainWithWhatTheyNoLongerOffer) {
  ChildProcess agent = startAgent();
  const auto listener = NSXPCListener::anonymousListener();
  auto ended = NSXPCListener::anonymousListener();
  const EndpointRef endOfListener = ended->endpoint();
  const auto handler = connect();
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "removed"_text), true);
  handler->removeEndpoint("removed"_text);
  EXPECT_EQ(handler->registerEndpoint(endOfListener, "ended"_text), true);
  ended.reset();
  const auto foreign = handler->retrieveEndpoint("ended"_text);
  ASSERT_TRUE(foreign && *foreign);
  EXPECT_EQ(handler->registerEndpoint(*foreign, "foreign"_text), true);
  auto gone = connect();
  EXPECT_EQ(gone->registerEndpoint(listener->endpoint(), "of a handle that went"_text), true);
  gone.reset();
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "kept"_text), true);

  kill(agent);
  agent = startAgent();
  ASSERT_TRUE(eventually([&] { return found("kept"_text) != 0; }));
  // The handle asked for all of them at once, on one connection: what it asks now is answered
  // later.
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(handler->retrieveEndpoint({}));
  for (const Text& identifier :
       {"removed"_text, "ended"_text, "foreign"_text, "of a handle that went"_text}) {
    EXPECT_EQ(found(identifier), 0u) << identifier.utf8();
  }
}

TEST_F(Applications, DoNotReplaceWhatOthersRegisteredMeanwhile) {
  ChildProcess agent = startAgent();
  const auto own = NSXPCListener::anonymousListener();
  const auto others = NSXPCListener::anonymousListener();
  const auto handler = connect();
  const int socket = ::dup(0);  // the lowest free number: the connection's socket takes it next
  ::close(socket);
  EXPECT_EQ(handler->registerEndpoint(own->endpoint(), "contested"_text), true);
  EXPECT_EQ(handler->registerEndpoint(own->endpoint(), "restored"_text), true);
  const auto other = connect();
  other->removeEndpoint("restored"_text);
  EXPECT_EQ(other->registerEndpoint(others->endpoint(), "contested"_text), true);

  ASSERT_EQ(::shutdown(socket, SHUT_RDWR), 0);
  EXPECT_TRUE(eventually([&] { return found("restored"_text) == inode(own->endpoint()); }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(handler->retrieveEndpoint({}));
  EXPECT_EQ(found("contested"_text), inode(others->endpoint()));
}

TEST_F(Applications, LearnWhenAServiceAppears) {
  for (const bool byManager : {false, true}) {
    std::promise<void> appeared;
    const auto queue = dispatch_queue_create("appearance", DISPATCH_QUEUE_SERIAL);
    const Text name = byManager ? "manager's"_text : "own"_text;
    const auto watch = ServiceWatch::start(name, queue, [&] { appeared.set_value(); });
    ASSERT_TRUE(watch);
    const auto other = NSXPCListener::initWithMachServiceName("other"_text);
    other->resume();
    const auto service = byManager ? nullptr : NSXPCListener::initWithMachServiceName(name);
    const UniqueFd socket = byManager ? bindTo(*namedServicePath(name)) : UniqueFd();
    if (service) service->resume();
    EXPECT_TRUE(service || listenOn(socket.get()));
    EXPECT_EQ(appeared.get_future().wait_for(std::chrono::minutes(1)), std::future_status::ready);
    EXPECT_EQ(connectTo(*namedServicePath(name)).outcome, ConnectOutcome::connected);
  }
}

TEST_F(Applications, MayRegisterBeforeThereIsAnAgent) {
  const auto listener = NSXPCListener::anonymousListener();
  const auto waiting = connect();
  EXPECT_EQ(waiting->registerEndpoint(listener->endpoint(), "waiting"_text), std::nullopt);
  const auto asynchronous = connect();
  asynchronous->registerEndpoint(listener->endpoint(), "asynchronous"_text, {});
  ChildProcess agent = startAgent();
  EXPECT_TRUE(eventually([&] { return found("waiting"_text) && found("asynchronous"_text); }));
}

// The service manager keeps the socket while the agent is away, and starts the agent when somebody
// connects: here it sees the handle come by itself.
TEST_F(Applications, AwakenAnAgentThatAServiceManagerStartsOnDemand) {
  ChildProcess agent = startAgent();
  const auto listener = NSXPCListener::anonymousListener();
  const auto handler = connect();
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "a"_text), true);
  const UniqueFd socket = bindTo(directory.path() + "/manager");
  ASSERT_TRUE(listenOn(socket.get()));
  ASSERT_EQ(::rename((directory.path() + "/manager").c_str(), socketPath().c_str()), 0);
  kill(agent);
  pollfd visitor{socket.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&visitor, 1, 60'000), 1);
  const UniqueFd inherited(::dup(socket.get()));
  agent =
      startAgent("LISTEN_FDS=1 LISTEN_PID=$$ LISTEN_FDNAMES=" + agentAppBundleIdentifier.utf8() +
                 " exec \"$0\" 2>/dev/null 3<&" + std::to_string(inherited.get()));
  EXPECT_TRUE(eventually([&] { return found("a"_text) == inode(listener->endpoint()); }));
}

TEST_F(Applications, HoldNothingMoreForBeingRegistered) {
  const auto held = [] { return TestSupport::openDescriptors(::getpid()); };
  ChildProcess agent = startAgent();
  const auto listener = NSXPCListener::anonymousListener();
  auto ended = NSXPCListener::anonymousListener();
  const std::size_t withListener = held();
  ended.reset();
  const std::size_t atFirst = held();
  ended = NSXPCListener::anonymousListener();
  auto handler = connect();
  EXPECT_EQ(handler->registerEndpoint(ended->endpoint(), "ended"_text), true);
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "kept"_text), true);
  EXPECT_EQ(held(), withListener + 1) << "the connection";
  ended.reset();
  EXPECT_EQ(held(), atFirst + 1);
  kill(agent);
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "kept"_text), std::nullopt);
  agent = startAgent();
  EXPECT_TRUE(eventually([&] { return found("kept"_text) != 0; }));
  EXPECT_TRUE(eventually([&] { return held() == atFirst + 1; }));
  kill(agent);
  handler.reset();
  EXPECT_TRUE(eventually([&] { return held() == atFirst; }));
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
