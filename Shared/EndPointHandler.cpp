#include "Shared/EndPointHandler.h"

#include <utility>

#include "Platform/Runtime/Stop.h"
#include "Platform/XPC/AwaitedReply.h"
#include "Shared/StandingProxy.h"

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
  setRemoteObjectProxy(
      std::make_shared<StandingProxy>(agentConnection(), serviceName(), std::move(onError)));
  agentConnection()->resume();
}

void EndPointHandler::registerEndpoint(EndpointRef endpoint, Text identifier, Reply<bool> reply) {
  if (const auto proxy = remoteObjectProxy()) {
    proxy->registerListenerEndpoint(std::move(endpoint), std::move(identifier), std::move(reply));
  }
}

void EndPointHandler::retrieveEndpoint(Text identifier, Reply<std::optional<EndpointRef>> reply) {
  if (const auto proxy = remoteObjectProxy()) {
    proxy->retrieveListenerEndpoint(std::move(identifier), std::move(reply));
  }
}

void EndPointHandler::removeEndpoint(Text identifier) {
  if (const auto proxy = remoteObjectProxy()) proxy->removeListenerEndpoint(std::move(identifier));
}

std::optional<bool> EndPointHandler::registerWithin(EndpointRef endpoint, Text identifier,
                                                    std::optional<Milliseconds> limit) {
  return awaitReply<bool>(
      [&](Reply<bool> reply) {
        registerEndpoint(std::move(endpoint), std::move(identifier), std::move(reply));
      },
      limit);
}

std::optional<EndpointRef> EndPointHandler::retrieveWithin(Text identifier,
                                                           std::optional<Milliseconds> limit) {
  using Found = std::optional<EndpointRef>;
  const auto answer = awaitReply<Found>(
      [&](Reply<Found> reply) { retrieveEndpoint(std::move(identifier), std::move(reply)); },
      limit);
  return answer ? Found(answer->value_or(nullptr)) : std::nullopt;
}

}  // namespace Gantrel_Sync_Helper
