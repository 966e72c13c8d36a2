// EndPointHandler: an application's handle on its link to the agent.
//
//   const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
//   agent->connect();
//   agent->registerEndpoint(listener->endpoint(), "notes"_text);
//
// The agent need not run yet: a connection is made with the first message, and made anew when it is
// lost. With another agent process than the one that answered, what was registered and not removed
// is registered again, as far as its listener is one of this process and still there, and nobody
// else has registered the identifier meanwhile. Destroying a handle sends nothing.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Runtime/Text.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Shared/EndPointHandling.h"

namespace Gantrel_Sync_Helper {

// Set up on one thread; then the messages may be sent from any.
class EndPointHandler {
 public:
  // Told, on the connection's queue, when a call with a reply block ends without its answer. Not of
  // calls that wait, whose result says it.
  using ErrorBlock = Platform::NSXPCErrorHandler;

  EndPointHandler();
  EndPointHandler(const EndPointHandler&) = delete;
  EndPointHandler& operator=(const EndPointHandler&) = delete;
  // Releases the three fields in the order of their declaration, and nothing else happens: a
  // connection that somebody else holds stays usable.
  virtual ~EndPointHandler();

  static std::shared_ptr<EndPointHandler> initWithServiceName(Platform::Text serviceName);

  // The name of the agent's service, which is its bundle identifier. Reading it, or the connection,
  // before it is set stops the process.
  virtual const Platform::Text& serviceName() const;
  virtual void setServiceName(std::optional<Platform::Text> serviceName);
  virtual const std::shared_ptr<Platform::NSXPCConnection>& agentConnection() const;
  virtual void setAgentConnection(std::shared_ptr<Platform::NSXPCConnection> connection);
  // Null until `connect`, unless one is set. All messages are sent to it, and any implementer will
  // do. The one that `connect` sets is what keeps registrations: whatever is sent through it is
  // noted, by the handle or not, for as long as it lives.
  virtual const std::shared_ptr<EndPointHandling>& remoteObjectProxy() const;
  virtual void setRemoteObjectProxy(std::shared_ptr<EndPointHandling> proxy);

  // Sets up connection and proxy for the service named `serviceName`. Called again, it starts anew:
  // what was registered before is kept registered no longer.
  void connect(ErrorBlock onError = {});

  // The messages of EndPointHandling. Of the reply block and the error block one is called; when
  // the handle goes first, and nobody else holds its proxy or connection, both are dropped
  // uncalled. What was sent before still leaves. Without a proxy they do nothing.
  void registerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                        Platform::Reply<bool> reply);
  void retrieveEndpoint(Platform::Text identifier,
                        Platform::Reply<std::optional<Platform::EndpointRef>> reply);
  void removeEndpoint(Platform::Text identifier);

  // The same, waiting for the answer on the calling thread, which may be any, for `limit` at most,
  // or without end. None when there is no answer by then: the agent is not there, went away or
  // refused, or there is no proxy. Any proxy must call the reply block or drop it. Also what was
  // registered without an answer is registered when the agent is there again, until it is removed.
  std::optional<bool> registerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier) {
    return registerWithin(std::move(endpoint), std::move(identifier), std::nullopt);
  }
  template <class Rep, class Period>
  std::optional<bool> registerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                                       std::chrono::duration<Rep, Period> limit) {
    return registerWithin(std::move(endpoint), std::move(identifier), milliseconds(limit));
  }
  // The inner value is null when nothing is stored under the identifier.
  std::optional<Platform::EndpointRef> retrieveEndpoint(Platform::Text identifier) {
    return retrieveWithin(std::move(identifier), std::nullopt);
  }
  template <class Rep, class Period>
  std::optional<Platform::EndpointRef> retrieveEndpoint(Platform::Text identifier,
                                                        std::chrono::duration<Rep, Period> limit) {
    return retrieveWithin(std::move(identifier), milliseconds(limit));
  }

 private:
  using Milliseconds = std::chrono::milliseconds;
  // Of any limit, of which a year is as good as a longer one.
  template <class Rep, class Period>
  static Milliseconds milliseconds(std::chrono::duration<Rep, Period> limit) {
    constexpr std::chrono::hours year(24 * 365);
    const std::chrono::duration<double> seconds(limit);  // which none overflows
    if (seconds <= seconds.zero()) return Milliseconds(0);
    return seconds < year ? std::chrono::ceil<Milliseconds>(limit) : year;
  }
  std::optional<bool> registerWithin(Platform::EndpointRef endpoint, Platform::Text identifier,
                                     std::optional<Milliseconds> limit);
  std::optional<Platform::EndpointRef> retrieveWithin(Platform::Text identifier,
                                                      std::optional<Milliseconds> limit);

  std::optional<Platform::Text> serviceName_;
  std::shared_ptr<Platform::NSXPCConnection> agentConnection_;
  std::shared_ptr<EndPointHandling> remoteObjectProxy_;
};

}  // namespace Gantrel_Sync_Helper
