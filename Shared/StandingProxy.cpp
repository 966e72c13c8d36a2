#include "Shared/StandingProxy.h"

#include <utility>

#include "Platform/XPC/AwaitedReply.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// They keep no connection alive.
StandingRegistrations::Service serviceOn(const std::weak_ptr<NSXPCConnection>& connection) {
  const auto proxy = [connection](NSXPCErrorHandler onError) {
    const auto link = connection.lock();
    return link ? link->remoteObjectProxyWithErrorHandler<EndPointHandling>(std::move(onError))
                : nullptr;
  };
  return {.retrieve =
              [proxy](const Text& identifier, auto reply, NSXPCErrorHandler onError) {
                const auto agent = proxy(std::move(onError));
                if (agent) agent->retrieveListenerEndpoint(identifier, std::move(reply));
              },
          .store =
              [proxy](const EndpointRef& endpoint, const Text& identifier, auto reply,
                      NSXPCErrorHandler onError) {
                const auto agent = proxy(std::move(onError));
                if (agent) agent->registerListenerEndpoint(endpoint, identifier, std::move(reply));
              }};
}

std::shared_ptr<EndPointHandling> noted(NSXPCConnection& connection,
                                        const std::shared_ptr<StandingRegistrations>& registrations,
                                        NSXPCErrorHandler onError) {
  const auto isAway = [weak = std::weak_ptr(registrations)] {
    if (const auto self = weak.lock()) self->serviceIsAway();
  };
  connection.setLinkLossHandler(isAway);
  return connection.remoteObjectProxyWithErrorHandler<EndPointHandling>(
      [isAway, onError = std::move(onError)](NSXPCConnectionError error) {
        if (error == NSXPCConnectionError::interrupted) isAway();
        if (onError && !AwaitedReply::isWaitingHere()) onError(error);
      });
}

}  // namespace

StandingProxy::StandingProxy(const std::shared_ptr<NSXPCConnection>& connection, Text serviceName,
                             NSXPCErrorHandler onError)
    : registrations_(
          std::make_shared<StandingRegistrations>(std::move(serviceName), serviceOn(connection))),
      agent_(noted(*connection, registrations_, std::move(onError))) {}

void StandingProxy::registerListenerEndpoint(EndpointRef endpoint, Text identifier,
                                             Reply<bool> completionHandler) {
  auto noted = registrations_->note(endpoint, identifier);
  agent_->registerListenerEndpoint(std::move(endpoint), std::move(identifier),
                                   [registrations = registrations_, noted = std::move(noted),
                                    reply = std::move(completionHandler)](bool stored) {
                                     registrations->answered(noted);
                                     if (reply) reply(stored);
                                   });
}

void StandingProxy::retrieveListenerEndpoint(Text identifier,
                                             Reply<std::optional<EndpointRef>> completionHandler) {
  agent_->retrieveListenerEndpoint(std::move(identifier), std::move(completionHandler));
}

void StandingProxy::removeListenerEndpoint(Text identifier) {
  registrations_->forget(identifier);
  agent_->removeListenerEndpoint(std::move(identifier));
}

}  // namespace Gantrel_Sync_Helper
