#include "GantrelAgent/Agent.h"

#include <string_view>
#include <utility>

#include "Platform/Dispatch/NSRunLoop.h"
#include "Platform/Runtime/Logger.h"
#include "Platform/Runtime/Stop.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// Where a log line says that it comes from. Readers of the log look for these texts and numbers:
// they belong to the line, not to this file's layout.
struct LogPlace {
  std::string_view function;
  unsigned line;
};
constexpr LogPlace inInit{"init(serviceName:)", 25};
constexpr LogPlace inResume{"resume()", 34};
constexpr LogPlace inRegister{"registerListenerEndpoint(_:forIdentifier:completionHandler:)", 57};
constexpr LogPlace inRetrieve{"retrieveListenerEndpoint(_:completionHandler:)", 67};
constexpr LogPlace inRemove{"removeListenerEndpoint", 76};

void log(std::string_view text, const Text& value, const LogPlace& place) {
  Logger::sharedInstance().info({text, value.utf8()}, "GantrelAgent/Agent", place.function,
                                place.line);
}

}  // namespace

std::shared_ptr<Agent> Agent::initWithServiceName(const Text& serviceName) {
  const std::shared_ptr<Agent> agent(new Agent);
  log("Agent init ", serviceName, inInit);
  agent->setServiceListener(NSXPCListener::initWithMachServiceName(serviceName));
  agent->serviceListener()->setDelegate(agent);
  const Text label = agentAppBundleIdentifier + ".ListenerQueue"_text;
  agent->setListenerQueue(dispatch_queue_create(label.utf8(), DISPATCH_QUEUE_SERIAL));
  return agent;
}

std::shared_ptr<Agent> Agent::init() {
  unimplementedInitialiser("init()", className);
}

void Agent::resume() {
  log("Agent resume", {}, inResume);
  serviceListener()->resume();
  NSRunLoop::currentRunLoop().run();
}

const std::shared_ptr<NSXPCListener>& Agent::serviceListener() const {
  if (!serviceListener_) stopProcess(ExitStatus::unavailable);
  return serviceListener_;
}

void Agent::setServiceListener(std::shared_ptr<NSXPCListener> listener) {
  serviceListener_ = std::move(listener);
}

const dispatch_queue_t& Agent::listenerQueue() const {
  if (!listenerQueue_) stopProcess(ExitStatus::software);
  return listenerQueue_;
}

void Agent::setListenerQueue(dispatch_queue_t queue) {
  listenerQueue_ = std::move(queue);
}

Agent::EndpointMap Agent::listeners() const {
  return listeners_;
}

void Agent::setListeners(EndpointMap listeners) {
  listeners_ = std::move(listeners);
}

bool Agent::listener(const std::shared_ptr<NSXPCListener>&,
                     const std::shared_ptr<NSXPCConnection>& newConnection) {
  newConnection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<EndPointHandling>());
  newConnection->setExportedObject(self());
  newConnection->resume();
  return true;
}

void Agent::registerListenerEndpoint(EndpointRef endpoint, Text identifier,
                                     Reply<bool> completionHandler) {
  log("registerListenerEndpoint forIdentifier=", identifier, inRegister);
  dispatch_async(listenerQueue(),
                 [self = self(), endpoint = std::move(endpoint), identifier = std::move(identifier),
                  reply = std::move(completionHandler)]() mutable {
                   self->listeners_.insert_or_assign(std::move(identifier), std::move(endpoint));
                   reply(true);
                 });
}

void Agent::retrieveListenerEndpoint(Text identifier,
                                     Reply<std::optional<EndpointRef>> completionHandler) {
  log("retrieveListenerEndpoint forIdentifier=", identifier, inRetrieve);
  dispatch_async(listenerQueue(), [self = self(), identifier = std::move(identifier),
                                   reply = std::move(completionHandler)] {
    const auto entry = self->listeners_.find(identifier);
    reply(entry == self->listeners_.end() ? std::nullopt : std::optional(entry->second));
  });
}

void Agent::removeListenerEndpoint(Text identifier) {
  log("removeListenerEndpoint forIdentifier=", identifier, inRemove);
  dispatch_async(listenerQueue(), [self = self(), identifier = std::move(identifier)] {
    self->listeners_.erase(identifier);
  });
}

std::shared_ptr<Agent> Agent::self() {
  return std::static_pointer_cast<Agent>(shared_from_this());
}

}  // namespace Gantrel_Sync_Helper
