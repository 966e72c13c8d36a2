// Agent: the broker of listener endpoints.
//
// Applications register the endpoint of their listener under an identifier; others ask for it and
// connect directly. The agent only stores endpoints and hands them out. One Agent serves all
// connections, so that all clients share one map.
#pragma once

#include <memory>
#include <string_view>
#include <unordered_map>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/EndPointHandling.h"

namespace Gantrel_Sync_Helper {

// Messages arrive on the queue of their connection, several connections' at once. The map is read
// and changed, and every reply given, only in tasks on `listenerQueue`, which is serial: so there
// is no lock, and a connection's messages take effect in the order in which they were sent.
class Agent final : public Platform::NSObject,
                    public EndPointHandling,
                    public Platform::NSXPCListenerDelegate {
 public:
  using EndpointMap = std::unordered_map<Platform::Text, Platform::EndpointRef>;

  static constexpr std::string_view className = "Gantrel_Sync_Helper.Agent";

  // The agent for the named service, not listening yet. Without a listener for that name the
  // process stops. Main thread.
  static std::shared_ptr<Agent> initWithServiceName(const Platform::Text& serviceName);
  // Unavailable: reports that and stops the process.
  [[noreturn]] static std::shared_ptr<Agent> init();

  // Listens, and runs the main thread's run loop, which does not return. Main thread, once.
  void resume();

  const std::shared_ptr<Platform::NSXPCListener>& serviceListener() const;
  void setServiceListener(std::shared_ptr<Platform::NSXPCListener> listener);
  const Platform::dispatch_queue_t& listenerQueue() const;
  void setListenerQueue(Platform::dispatch_queue_t queue);
  // A copy of the map, and its replacement as a whole. In a task on `listenerQueue`.
  EndpointMap listeners() const;
  void setListeners(EndpointMap listeners);

  // Accepts every connection.
  bool listener(
      const std::shared_ptr<Platform::NSXPCListener>& listener,
      const std::shared_ptr<Platform::NSXPCConnection>& shouldAcceptNewConnection) override;

  void registerListenerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                                Platform::Reply<bool> completionHandler) override;
  void retrieveListenerEndpoint(
      Platform::Text identifier,
      Platform::Reply<std::optional<Platform::EndpointRef>> completionHandler) override;
  void removeListenerEndpoint(Platform::Text identifier) override;

 private:
  Agent() = default;
  std::shared_ptr<Agent> self();

  std::shared_ptr<Platform::NSXPCListener> serviceListener_;
  Platform::dispatch_queue_t listenerQueue_;
  EndpointMap listeners_;  // only in tasks on listenerQueue_
};

}  // namespace Gantrel_Sync_Helper
