#include "Tools/Registry.h"

#include <sys/stat.h>

#include <chrono>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/RuntimeDirectory.h"
#include "Platform/XPC/NamedService.h"
#include "Platform/XPC/Socket.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

bool areOfSameListener(const NSXPCListenerEndpoint& one, const NSXPCListenerEndpoint& other) {
  struct stat first {};
  struct stat second {};
  ::fstat(one.descriptor(), &first);
  ::fstat(other.descriptor(), &second);
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Empty where an agent could be reached.
std::string whyOutOfReach() {
  const std::string problem = runtimeDirectoryProblem();
  return problem.empty() ? "" : "the agent cannot be reached: " + escaped(problem) + ".";
}

}  // namespace

Registry::Registry(Patience patience)
    : patience_(patience), agent_(EndPointHandler::initWithServiceName(agentAppBundleIdentifier)) {
  agent_->connect();
}

std::optional<EndpointRef> Registry::tryToRetrieve(const Text& identifier,
                                                   std::optional<Patience> patience) {
  std::optional<EndpointRef> answer;
  const auto onError = [this](NSXPCConnectionError error) { error_ = error; };
  agent_->agentConnection()
      ->synchronousRemoteObjectProxyWithErrorHandler<EndPointHandling>(onError,
                                                                       patience.value_or(patience_))
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
  EndpointRef endpoint = retrieve(identifier);
  if (!endpoint) {
    fail(Status::notRegistered, "nothing is registered as " + shown(identifier) + ".");
  }
  return endpoint;
}

void Registry::registerEndpoint(const EndpointRef& endpoint, const Text& identifier) {
  const auto end = std::chrono::steady_clock::now() + patience_;
  const auto isStored = agent_->registerEndpoint(endpoint, identifier, patience_);
  if (isStored == true) return;
  error_ = NSXPCConnectionError::timedOut;
  if (!isStored && std::chrono::steady_clock::now() >= end) failWithoutAnswer();
  retrieve(identifier);  // says why, where this is not answered either
  fail(Status::refused, "the agent has refused to register " + shown(identifier) +
                            ": it may have no room for more.");
}

Status Registry::remove(const EndpointRef& endpoint, const Text& identifier) {
  auto found = tryToRetrieve(identifier);
  if (found && *found && areOfSameListener(**found, *endpoint)) {
    agent_->removeEndpoint(identifier);
    found = tryToRetrieve(identifier);
  }
  if (found) return Status::done;
  const auto [status, sentence] = whyNoAnswer();
  if (status == Status::noAgent) return Status::done;  // its entries have gone with it
  complain("the entry " + shown(identifier) + " could not be removed: " + sentence);
  return status;
}

Registry::Reason Registry::whyNoAnswer() const {
  const std::string name = shown(agentAppBundleIdentifier);
  if (error_ == NSXPCConnectionError::timedOut) {
    return {Status::notInTime, "the agent runs, but did not answer in time."};
  }
  if (error_ == NSXPCConnectionError::refused || error_ == NSXPCConnectionError::replyInvalid) {
    return {Status::ended, "whoever serves " + name + " does not answer as the agent does."};
  }
  if (std::string why = whyOutOfReach(); !why.empty()) return {Status::noAgent, std::move(why)};
  const auto path = namedServicePath(agentAppBundleIdentifier);
  switch (path ? connectTo(*path).outcome : ConnectOutcome::refused) {
    case ConnectOutcome::connected:
      return {Status::ended, "whoever serves " + name + " ended, or sent what is not understood."};
    case ConnectOutcome::tryLater:
      return {Status::notInTime, "the agent lets nobody in now, or no descriptor is left here."};
    case ConnectOutcome::refused:
      break;
  }
  return {Status::noAgent, "the agent is not running: nobody serves " + name + "."};
}

void Registry::failWithoutAnswer() const {
  const auto [status, sentence] = whyNoAnswer();
  fail(status, sentence);
}

void requireRuntimeDirectory() {
  if (const std::string why = whyOutOfReach(); !why.empty()) fail(Status::noAgent, why);
}

void failAsGone(const Text& identifier) {
  fail(Status::gone,
       "whoever served " + shown(identifier) + " has gone; the entry is still there.");
}

}  // namespace Gantrel_Sync_Helper
