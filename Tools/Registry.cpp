#include "Tools/Registry.h"

#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/RuntimeDirectory.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

Registry::Registry(Patience patience)
    : patience_(patience), agent_(EndPointHandler::initWithServiceName(agentAppBundleIdentifier)) {
  agent_->connect();
}

std::optional<EndpointRef> Registry::tryToRetrieve(const Text& identifier) {
  std::optional<EndpointRef> answer;
  isLate_ = false;
  const auto onError = [this](NSXPCConnectionError error) {
    isLate_ = error == NSXPCConnectionError::timedOut;
  };
  agent_->agentConnection()
      ->synchronousRemoteObjectProxyWithErrorHandler<EndPointHandling>(onError, patience_)
      ->retrieveListenerEndpoint(identifier, [&](std::optional<EndpointRef> found) {
        answer = std::move(found).value_or(nullptr);
      });
  return answer;
}

EndpointRef Registry::retrieve(const Text& identifier) {
  const auto endpoint = tryToRetrieve(identifier);
  if (!endpoint) failWithoutAnswer();
  return *endpoint;
}

EndpointRef Registry::require(const Text& identifier) {
  const EndpointRef endpoint = retrieve(identifier);
  if (!endpoint) {
    fail(Status::notRegistered, "nothing is registered as " + shown(identifier) + ".");
  }
  return endpoint;
}

std::vector<Entry> Registry::entries(const std::vector<Text>& identifiers) {
  std::vector<Entry> entries;
  std::vector<Sight> sights;  // and no endpoints, each of which takes a descriptor
  for (const Text& identifier : identifiers) {
    const EndpointRef endpoint = retrieve(identifier);
    if (!endpoint) continue;
    entries.push_back({identifier, {}});
    sights.push_back(look(*endpoint));
  }
  auto listeners = listenersBehind(sights);
  for (std::size_t i = 0; i < entries.size(); ++i) entries[i].listener = std::move(listeners[i]);
  return entries;
}

void Registry::registerEndpoint(const EndpointRef& endpoint, const Text& identifier) {
  const auto end = std::chrono::steady_clock::now() + patience_;
  const auto isStored = agent_->registerEndpoint(endpoint, identifier, patience_);
  if (isStored == true) return;
  isLate_ = !isStored && std::chrono::steady_clock::now() >= end;
  if (isLate_) failWithoutAnswer();
  retrieve(identifier);  // says why, where the agent is not there
  fail(Status::refused, "the agent has refused to register " + shown(identifier) +
                            ": it may have no room for more.");
}

void Registry::remove(const Text& identifier) {
  agent_->removeEndpoint(identifier);
  retrieve(identifier);
}

void Registry::removeIfStill(const EndpointRef& endpoint, const Text& identifier) {
  const auto found = tryToRetrieve(identifier);
  if (!found || !*found || !look(**found).isOfSameListener(look(*endpoint))) return;
  agent_->removeEndpoint(identifier);
  tryToRetrieve(identifier);
}

void Registry::failWithoutAnswer() const {
  if (isLate_) fail(Status::notInTime, "the agent runs, but did not answer in time.");
  const std::string problem = runtimeDirectoryProblem();
  fail(Status::noAgent, problem.empty() ? "the agent is not running: nobody serves " +
                                              shown(agentAppBundleIdentifier) + "."
                                        : "the agent cannot be reached: " + escaped(problem) + ".");
}

void failAsGone(const Text& identifier) {
  fail(Status::gone,
       "whoever served " + shown(identifier) + " has gone; the entry is still there.");
}

}  // namespace Gantrel_Sync_Helper
