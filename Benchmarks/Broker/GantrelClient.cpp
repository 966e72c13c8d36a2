// Our own contender: the agent as shipped, reached through the API that applications use.
//
// The agent's service is found by its name in XDG_RUNTIME_DIR, which the harness sets, so the
// address that the other contenders are given says nothing here.
#include <unistd.h>

#include <latch>

#include "Benchmarks/Broker/Contender.h"
#include "Benchmarks/Broker/Sockets.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace Benchmark {
namespace {

Text textOf(const std::string& identifier) {
  return *Text::fromUtf8(identifier);
}

class GantrelClient : public Client {
 public:
  GantrelClient() {
    agent_->connect([](NSXPCConnectionError) { fail("the agent is gone"); });
  }

  bool retrieve(const std::string& identifier) override {
    return retrieveEndpoint(identifier) != nullptr;
  }

  EndpointRef retrieveEndpoint(const std::string& identifier) {
    std::optional<EndpointRef> endpoint = agent_->retrieveEndpoint(textOf(identifier));
    if (!endpoint) fail("no answer to a retrieval");
    return *std::move(endpoint);
  }

  void registerEndpoint(const std::string& identifier) override {
    static const std::shared_ptr<NSXPCListener> own = NSXPCListener::anonymousListener();
    registerEndpoint(identifier, own->endpoint());
  }

  void registerEndpoint(const std::string& identifier, const EndpointRef& endpoint) {
    if (agent_->registerEndpoint(endpoint, textOf(identifier)) != true) fail("not registered");
  }

  std::uint64_t retrieveWhile(const GoesOn& goesOn, const std::string& identifier,
                              unsigned inFlight) override {
    Flight flight{*agent_, textOf(identifier), goesOn, std::latch(inFlight)};
    for (unsigned i = 0; i < inFlight; ++i) flight.ask();
    flight.landed.wait();
    return flight.answered;
  }

 private:
  // The requests of one retrieveWhile: each answer asks the next.
  struct Flight {
    EndPointHandler& agent;
    const Text identifier;
    const GoesOn& goesOn;
    std::latch landed;
    std::uint64_t answered = 0;  // on the connection's queue until all have landed

    void ask() {
      agent.retrieveEndpoint(identifier, [this](std::optional<EndpointRef> endpoint) {
        if (!endpoint) fail("a reply without endpoint");
        endpoint.reset();
        ++answered;
        if (goesOn(answered)) {
          ask();
        } else {
          landed.count_down();
        }
      });
    }
  };

  const std::shared_ptr<EndPointHandler> agent_ =
      EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
};

// The application that others meet: its answer to the first message is empty.
class Host : public NSObject, public Communication, public NSXPCListenerDelegate {
 public:
  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Communication>());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }

  void openMeetingWithId(Text) override {}
  void createNewMeeting() override {}
  void fetchUpcomingMeetings(Reply<Value> reply) override { reply({}); }
  void displaySyncing() override {}
  void displayNotSyncing() override {}
};

std::unique_ptr<Client> connect(const std::string&) {
  return std::make_unique<GantrelClient>();
}

void host(const std::string&, const std::string& identifier, void (*ready)()) {
  const auto object = std::make_shared<Host>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  listener->setDelegate(object);
  listener->resume();
  GantrelClient().registerEndpoint(identifier, listener->endpoint());
  ready();
  for (;;) ::pause();
}

void meet(const std::string&, const std::string& identifier) {
  GantrelClient agent;
  const EndpointRef endpoint = agent.retrieveEndpoint(identifier);
  if (!endpoint) fail("nothing to meet");
  const auto peer = NSXPCConnection::initWithListenerEndpoint(endpoint);
  peer->resume();
  bool answered = false;
  peer->synchronousRemoteObjectProxyWithErrorHandler<Communication>({})->fetchUpcomingMeetings(
      [&](const Value&) { answered = true; });
  if (!answered) fail("the peer does not answer");
}

}  // namespace

const Contender contender{connect, host, meet};

}  // namespace Benchmark
