// StandingProxy: a proxy for the agent's exported object that notes what is sent through it, and
// passes it on.
//
// The agent's registry ends with the agent. What is registered through this proxy and not removed
// is registered again with the next one; Platform/XPC/StandingRegistrations.h says how.
#pragma once

#include <memory>

#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/StandingRegistrations.h"
#include "Shared/EndPointHandling.h"

namespace Gantrel_Sync_Helper {

// Any thread.
class StandingProxy final : public EndPointHandling {
 public:
  // On a connection to the service of that name, before it is resumed. `onError` is told when a
  // call ends without its answer, save one that is waited for (AwaitedReply.h).
  StandingProxy(const std::shared_ptr<Platform::NSXPCConnection>& connection,
                Platform::Text serviceName, Platform::NSXPCErrorHandler onError);

  void registerListenerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                                Platform::Reply<bool> completionHandler) override;
  void retrieveListenerEndpoint(
      Platform::Text identifier,
      Platform::Reply<std::optional<Platform::EndpointRef>> completionHandler) override;
  void removeListenerEndpoint(Platform::Text identifier) override;

 private:
  const std::shared_ptr<Platform::StandingRegistrations> registrations_;
  const std::shared_ptr<EndPointHandling> agent_;
};

}  // namespace Gantrel_Sync_Helper
