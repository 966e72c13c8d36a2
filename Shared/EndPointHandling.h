// EndPointHandling: the interface that the agent exports on every connection.
#pragma once

#include <memory>
#include <optional>

#include "Platform/XPC/NSXPCConnection.h"

namespace Gantrel_Sync_Helper {

// An identifier is any text; two that are canonically equivalent name the same entry.
class EndPointHandling {
 public:
  virtual ~EndPointHandling() = default;

  // Stores the endpoint under the identifier, in place of any that was there. Answers YES once a
  // retrieval would find it.
  virtual void registerListenerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                                        Platform::Reply<bool> completionHandler) = 0;
  // Answers the endpoint stored under the identifier, or nil. The entry stays.
  virtual void retrieveListenerEndpoint(
      Platform::Text identifier,
      Platform::Reply<std::optional<Platform::EndpointRef>> completionHandler) = 0;
  // Removes the entry, if there is one.
  virtual void removeListenerEndpoint(Platform::Text identifier) = 0;

  class Proxy;
  static consteval auto protocol() {
    using Platform::method;
    return Platform::Protocol(
        "EndPointHandling",
        method<&EndPointHandling::registerListenerEndpoint>(
            "registerListenerEndpoint:forIdentifier:completionHandler:"),
        method<&EndPointHandling::retrieveListenerEndpoint>(
            "retrieveListenerEndpoint:completionHandler:"),
        method<&EndPointHandling::removeListenerEndpoint>("removeListenerEndpoint:"));
  }
};

class EndPointHandling::Proxy final : public Platform::RemoteProxy<EndPointHandling> {
 public:
  using RemoteProxy::RemoteProxy;

  void registerListenerEndpoint(Platform::EndpointRef endpoint, Platform::Text identifier,
                                Platform::Reply<bool> completionHandler) override {
    send<&EndPointHandling::registerListenerEndpoint>(endpoint, identifier, completionHandler);
  }
  void retrieveListenerEndpoint(
      Platform::Text identifier,
      Platform::Reply<std::optional<Platform::EndpointRef>> completionHandler) override {
    send<&EndPointHandling::retrieveListenerEndpoint>(identifier, completionHandler);
  }
  void removeListenerEndpoint(Platform::Text identifier) override {
    send<&EndPointHandling::removeListenerEndpoint>(identifier);
  }
};

}  // namespace Gantrel_Sync_Helper
