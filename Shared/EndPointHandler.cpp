#include "Shared/EndPointHandler.h"

#include <utility>

#include "Platform/Runtime/Stop.h"
#include "Shared/Registrations.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

EndPointHandler::EndPointHandler() = default;

EndPointHandler::~EndPointHandler() {
  serviceName_.reset();
  agentConnection_.reset();
  remoteObjectProxy_.reset();
}

std::shared_ptr<EndPointHandler> EndPointHandler::initWithServiceName(Text serviceName) {
  auto handler = std::make_shared<EndPointHandler>();
  handler->setServiceName(std::move(serviceName));
  return handler;
}

const Text& EndPointHandler::serviceName() const {
  if (!serviceName_) stopProcess(ExitStatus::software);
  return *serviceName_;
}

void EndPointHandler::setServiceName(std::optional<Text> serviceName) {
  serviceName_ = std::move(serviceName);
}

const std::shared_ptr<NSXPCConnection>& EndPointHandler::agentConnection() const {
  if (!agentConnection_) stopProcess(ExitStatus::software);
  return agentConnection_;
}

void EndPointHandler::setAgentConnection(std::shared_ptr<NSXPCConnection> connection) {
  agentConnection_ = std::move(connection);
}

const std::shared_ptr<EndPointHandling>& EndPointHandler::remoteObjectProxy() const {
  return remoteObjectProxy_;
}

void EndPointHandler::setRemoteObjectProxy(std::shared_ptr<EndPointHandling> proxy) {
  remoteObjectProxy_ = std::move(proxy);
}

void EndPointHandler::connect(ErrorBlock onError) {
  setAgentConnection(NSXPCConnection::initWithMachServiceName(serviceName()));
  registrations_ = std::make_shared<Registrations>(serviceName(), agentConnection());
  const auto agentIsAway = [registrations = std::weak_ptr(registrations_)] {
    if (const auto self = registrations.lock()) self->agentIsAway();
  };
  agentConnection()->setInterruptionHandler(agentIsAway);
  agentConnection()->resume();
  setRemoteObjectProxy(agentConnection()->remoteObjectProxyWithErrorHandler<EndPointHandling>(
      [agentIsAway, onError = std::move(onError)](NSXPCConnectionError error) {
        if (error == NSXPCConnectionError::interrupted) agentIsAway();
        if (onError) onError(error);
      }));
}

void EndPointHandler::registerEndpoint(const EndpointRef& endpoint, const Text& identifier,
                                       Reply<bool> reply) {
  if (registrations_) registrations_->note(endpoint, identifier);
  if (const auto proxy = remoteObjectProxy()) {
    proxy->registerListenerEndpoint(endpoint, identifier, std::move(reply));
  }
}

void EndPointHandler::retrieveEndpoint(const Text& identifier,
                                       Reply<std::optional<EndpointRef>> reply) {
  if (const auto proxy = remoteObjectProxy()) {
    proxy->retrieveListenerEndpoint(identifier, std::move(reply));
  }
}

void EndPointHandler::removeEndpoint(const Text& identifier) {
  if (registrations_) registrations_->forget(identifier);
  if (const auto proxy = remoteObjectProxy()) proxy->removeListenerEndpoint(identifier);
}

std::shared_ptr<EndPointHandling> EndPointHandler::waitingProxy() const {
  if (!agentConnection_) return nullptr;
  return agentConnection()->synchronousRemoteObjectProxyWithErrorHandler<EndPointHandling>({});
}

std::optional<bool> EndPointHandler::registerEndpoint(const EndpointRef& endpoint,
                                                      const Text& identifier) {
  std::optional<bool> answer;
  if (registrations_) registrations_->note(endpoint, identifier);
  if (const auto proxy = waitingProxy()) {
    proxy->registerListenerEndpoint(endpoint, identifier, [&](bool stored) { answer = stored; });
  }
  if (!answer && registrations_) registrations_->agentIsAway();
  return answer;
}

std::optional<EndpointRef> EndPointHandler::retrieveEndpoint(const Text& identifier) {
  std::optional<EndpointRef> answer;
  if (const auto proxy = waitingProxy()) {
    proxy->retrieveListenerEndpoint(identifier, [&](std::optional<EndpointRef> found) {
      answer = std::move(found).value_or(nullptr);
    });
  }
  return answer;
}

}  // namespace Gantrel_Sync_Helper
