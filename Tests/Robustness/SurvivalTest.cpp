// The agent ends and comes back; what applications offer is there again.

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

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
  handler->remoteObjectProxy()->removeListenerEndpoint("removed"_text);
  auto ended = NSXPCListener::anonymousListener();
  registers(ended->endpoint(), "ended"_text);
  ended.reset();
  EXPECT_TRUE(holds(atFirst + 1)) << "the connection";
  const auto foreign = handler->retrieveEndpoint("ended"_text);
  ASSERT_TRUE(foreign && *foreign);
  registers(*foreign, "foreign"_text);
  EXPECT_EQ(connect()->registerEndpoint(listener->endpoint(), "of a handle that went"_text), true);
  registers(listener->endpoint(), "replaced"_text);
  handler->remoteObjectProxy()->registerListenerEndpoint(other->endpoint(), "replaced"_text, {});
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

TEST_F(Applications, LeaveAloneWhatWasTakenFromThemWhileTheSameAgentLives) {
  const std::string log = directory.path() + "/log";
  ChildProcess agent = startAgent("exec \"$0\" 2>" + log);
  const int socket = ::dup(0);  // the lowest free number: the connection's socket takes it next
  ::close(socket);
  registers(listener->endpoint(), "taken"_text);
  const auto stranger = connect();
  stranger->removeEndpoint("taken"_text);
  EXPECT_EQ(stranger->registerEndpoint(nullptr, "refused"_text), std::nullopt);
  EXPECT_EQ(handler->registerEndpoint(nullptr, "taken"_text), std::nullopt);

  ASSERT_EQ(::shutdown(socket, SHUT_RDWR), 0);
  EXPECT_TRUE(eventually([&] {  // it asks who is there
    const std::string asked = "retrieveListenerEndpoint forIdentifier=taken";
    return (std::ostringstream() << std::ifstream(log).rdbuf()).str().find(asked) !=
           std::string::npos;
  }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(handler->retrieveEndpoint({}));
  EXPECT_EQ(found("taken"_text), 0u);
  kill(agent);
  agent = startAgent();
  EXPECT_TRUE(eventually([&] { return found("taken"_text) == inode(listener->endpoint()); }));
}

// In the agent's place: somebody registers an endpoint right after the first question.
class BusyRegistry : public NSObject, public EndPointHandling, public NSXPCListenerDelegate {
 public:
  explicit BusyRegistry(EndpointRef strangers) : strangers_(std::move(strangers)) {}
  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<EndPointHandling>());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }
  void registerListenerEndpoint(EndpointRef endpoint, Text, Reply<bool> reply) override {
    stored_ = endpoint;
    ++registrations;
    reply(true);
  }
  void retrieveListenerEndpoint(Text, Reply<std::optional<EndpointRef>> reply) override {
    const bool isFirst = !stored_;
    if (isFirst) stored_ = strangers_;
    reply(isFirst ? std::nullopt : std::optional(stored_));
  }
  void removeListenerEndpoint(Text) override {}

  std::atomic<int> registrations = 0;

 private:
  const EndpointRef strangers_;
  EndpointRef stored_;
};

TEST_F(Applications, PutBackWhatOthersRegisteredWhileTheyReturned) {
  EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "contested"_text), std::nullopt);
  const auto registry = std::make_shared<BusyRegistry>(other->endpoint());
  const auto service = NSXPCListener::initWithMachServiceName(agentAppBundleIdentifier);
  service->setDelegate(registry);
  service->resume();
  EXPECT_TRUE(eventually([&] { return registry->registrations == 2; }));
  EXPECT_EQ(found("contested"_text), inode(other->endpoint()));
}

// Passes its calls on, but for what `instead` answers.
class OwnProxy : public EndPointHandling {
 public:
  void registerListenerEndpoint(EndpointRef endpoint, Text identifier, Reply<bool> reply) override {
    ++calls;
    next->registerListenerEndpoint(endpoint, identifier, [reply](bool stored) { reply(stored); });
  }
  void retrieveListenerEndpoint(Text identifier, Reply<std::optional<EndpointRef>> reply) override {
    ++calls;
    if (instead) return instead(reply);
    next->retrieveListenerEndpoint(identifier, [reply](auto found) { reply(found); });
  }
  void removeListenerEndpoint(Text identifier) override {
    ++calls;
    next->removeListenerEndpoint(identifier);
  }

  std::shared_ptr<EndPointHandling> next;
  std::function<void(Reply<std::optional<EndpointRef>>)> instead;
  int calls = 0;
};

TEST_F(Applications, MayWaitAnywhereThroughAProxyOfTheirOwn) {
  ChildProcess agent = startAgent();
  const auto proxy = std::make_shared<OwnProxy>();
  proxy->next = handler->remoteObjectProxy();
  handler->setRemoteObjectProxy(proxy);
  registers(listener->endpoint(), "a"_text);
  std::promise<bool> insideItsOwnCall;
  handler->retrieveEndpoint("a"_text, [&](auto) {
    insideItsOwnCall.set_value(handler->retrieveEndpoint("a"_text).value_or(nullptr) != nullptr);
  });
  EXPECT_TRUE(insideItsOwnCall.get_future().get());
  handler->removeEndpoint("b"_text);
  EXPECT_EQ(proxy->calls, 4);
  kill(agent);
  agent = startAgent();
  EXPECT_TRUE(eventually([] { return found("a"_text) != 0; })) << "noted all the same";

  std::thread elsewhere;
  proxy->instead = [&](auto reply) { elsewhere = std::thread([reply] { reply(std::nullopt); }); };
  EXPECT_EQ(handler->retrieveEndpoint("a"_text), EndpointRef());
  elsewhere.join();
  proxy->instead = [](auto) {};  // drops it
  EXPECT_EQ(handler->retrieveEndpoint("a"_text), std::nullopt);
}

TEST_F(Applications, OutliveWhoeverHoldsTheNameAndBreaksTheRules) {
  const UniqueFd socket = bindTo(socketPath());
  ASSERT_TRUE(listenOn(socket.get()));
  std::thread liar([&] {
    for (pollfd listening{socket.get(), POLLIN, 0}; ::poll(&listening, 1, -1) == 1;) {
      const UniqueFd visitor(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char bytes[1024];
      if (!visitor.isValid() || ::read(visitor.get(), bytes, sizeof bytes) < 0) return;
      ::send(visitor.get(), std::string(64, '\xff').data(), 64, MSG_NOSIGNAL);
    }
  });
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), "a"_text), std::nullopt);
  }
  ::shutdown(socket.get(), SHUT_RDWR);
  liar.join();
  ::unlink(socketPath().c_str());
  const ChildProcess agent = startAgent();
  EXPECT_TRUE(eventually([&] { return found("a"_text) != 0; }));
  EXPECT_TRUE(handler->retrieveEndpoint("a"_text));
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
  const ServiceWatch watchesOwn("own"_text, queue, [&] { own.set_value(); });
  const std::size_t forOne = TestSupport::openDescriptors(::getpid());
  const ServiceWatch watchesManagers("manager's"_text, queue, [&] { managers.set_value(); });
  EXPECT_EQ(TestSupport::openDescriptors(::getpid()), forOne) << "they share one";
  const auto service = NSXPCListener::initWithMachServiceName("own"_text);
  service->resume();
  own.get_future().wait();
  EXPECT_EQ(connectTo(*namedServicePath("own"_text)).outcome, ConnectOutcome::connected);
  const UniqueFd socket = bindTo(*namedServicePath("manager's"_text));
  EXPECT_TRUE(listenOn(socket.get()));
  managers.get_future().wait();
}

TEST_F(Applications, LearnWhenAServiceAppearsAlsoWithoutRoomForAWatchAndInAFolderMadeAnew) {
  const auto queue = dispatch_queue_create("appearance", DISPATCH_QUEUE_SERIAL);
  queue->async([] {});  // its threads need descriptors
  const auto hasAppeared = std::make_shared<std::atomic<bool>>(false);
  const auto appears = [&] {
    const auto service = NSXPCListener::initWithMachServiceName("own"_text);
    service->resume();
    return eventually([&] { return hasAppeared->exchange(false); });
  };
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  if (!TestSupport::isSanitized) ::setrlimit(RLIMIT_NOFILE, &none);  // sanitizers want some, too
  const ServiceWatch watch("own"_text, queue, [hasAppeared] { *hasAppeared = true; });
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(appears()) << "without room";
  for (const std::string& folder : {directory.path() + "/gantrel", directory.path()}) {
    std::filesystem::remove_all(folder);
    ::mkdir(directory.path().c_str(), 0700);
    EXPECT_TRUE(appears()) << "made anew: " << folder;
  }
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
