#include "GantrelAgent/Agent.h"

#include "Shared/GApp.h"
#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;

// The registry needs no transport: its methods are called here as a connection would.
TEST(Agent, AnswersOnItsQueueOnceTheMapHoldsTheEndpoint) {
  const TestSupport::PrivateRuntimeDirectory directory;
  const auto agent = Agent::initWithServiceName("any.name"_text);
  EXPECT_EQ(agent->listenerQueue()->label(), agentAppBundleIdentifier.utf8() + ".ListenerQueue");

  const auto endpoint = NSXPCListener::anonymousListener()->endpoint();
  std::promise<void> answered;
  agent->registerListenerEndpoint(endpoint, "a"_text, [&](bool stored) {
    EXPECT_TRUE(stored);
    EXPECT_TRUE(agent->listenerQueue()->isCurrent());
    agent->listeners().clear();
    EXPECT_EQ(agent->listeners(), (Agent::EndpointMap{{"a"_text, endpoint}})) << "not a copy";
  });
  agent->retrieveListenerEndpoint("a"_text, [&](std::optional<EndpointRef> found) {
    EXPECT_EQ(found, endpoint) << "the very object that was stored";
    EXPECT_TRUE(agent->listenerQueue()->isCurrent());
    agent->setListeners({});
  });
  agent->retrieveListenerEndpoint("a"_text, [&](std::optional<EndpointRef> found) {
    EXPECT_FALSE(found);
    answered.set_value();
  });
  answered.get_future().wait();
}

TEST(AgentDeathTest, HasNoPlainInitialiser) {
  EXPECT_EXIT(Agent::init(), testing::ExitedWithCode(70),
              "^fatal error: unimplemented initialiser \"init\\(\\)\" of class "
              "\"Gantrel_Sync_Helper.Agent\"\n$");
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
