// NSXPCListener: where connections come in.
//
// An anonymous listener is reached by whoever was handed its endpoint; a named one by all processes
// of this user, under its name. The delegate is asked about every new connection.
#pragma once

#include <memory>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"

namespace Platform {

class NSXPCListener;

class NSXPCListenerDelegate {
 public:
  virtual ~NSXPCListenerDelegate() = default;

  // Asked once about each new connection, one at a time, on a queue of the listener's. To take it,
  // set it up, resume it and answer true; the layer keeps it alive from then on. Else it is closed.
  virtual bool listener(const std::shared_ptr<NSXPCListener>& listener,
                        const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) = 0;
};

// All methods: any thread. The delegate is set before `resume`. Connections outlive their listener.
class NSXPCListener final : public NSObject {
 public:
  // Null when the runtime directory cannot be had, or the system has no socket to give.
  static std::shared_ptr<NSXPCListener> anonymousListener();

  // The listener for a named service: on the socket that the service manager opened for it, else on
  // one of its own. Null when the name is taken or cannot be a service's, or when there is no
  // runtime directory. Lets the process have as many descriptors as it is allowed, since each
  // client takes one.
  static std::shared_ptr<NSXPCListener> initWithMachServiceName(const Text& name);

  ~NSXPCListener() override;

  // Held weakly; connections that come while there is none are closed.
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);

  // Starts to accept connections; those that came before are waiting. Once.
  void resume();

  // Stops for good: whoever connects from now on is refused.
  void invalidate();

  // The same object at each call, also when it has stopped; null for a named listener.
  std::shared_ptr<NSXPCListenerEndpoint> endpoint() const;

 private:
  class Acceptor;
  NSXPCListener(std::shared_ptr<Acceptor> acceptor,
                std::shared_ptr<NSXPCListenerEndpoint> endpoint);

  const std::shared_ptr<Acceptor> acceptor_;
  const std::shared_ptr<NSXPCListenerEndpoint> endpoint_;
};

}  // namespace Platform
