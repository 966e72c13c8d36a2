// Registrations: what an application offers through the agent, kept so that it is offered again
// after the agent was away.
//
// The agent's registry ends with the agent. Once the connection is interrupted, or a registration
// finds nobody there, the endpoints noted here are asked for again, and registered where the answer
// is nil: soon after an interruption, in case a service manager holds the agent's place, and when
// the service's name appears. Between these events nothing runs, and while the agent is there
// nothing is watched.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/ServiceWatch.h"
#include "Shared/EndPointHandling.h"

namespace Gantrel_Sync_Helper {

// Always held by shared_ptr. All methods: any thread.
class Registrations : public std::enable_shared_from_this<Registrations> {
 public:
  // Both weakly: neither the connection nor a listener lives longer for being noted.
  Registrations(Platform::Text serviceName, std::weak_ptr<Platform::NSXPCConnection> connection);

  // Called before the message that it is about is sent, so that what is sent again never overtakes
  // it. Endpoints of other processes' listeners are not registered again.
  void note(const Platform::EndpointRef& endpoint, const Platform::Text& identifier);
  void forget(const Platform::Text& identifier);

  // The agent is gone, or was not there. Does nothing when nothing is noted.
  void agentIsAway();

 private:
  void restoreAll();
  void agentAnswered(const Platform::Text& identifier, bool isKnown);

  const Platform::Text serviceName_;
  const std::weak_ptr<Platform::NSXPCConnection> connection_;
  const Platform::dispatch_queue_t queue_;

  std::mutex mutex_;
  // Protected by mutex_:
  std::unordered_map<Platform::Text, std::weak_ptr<Platform::NSXPCListenerEndpoint>> endpoints_;
  std::shared_ptr<Platform::ServiceWatch> watch_;  // null while the agent is there
  bool isDue_ = false;                             // restoreAll comes soon
};

}  // namespace Gantrel_Sync_Helper
