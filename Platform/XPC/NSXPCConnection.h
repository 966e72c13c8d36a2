// NSXPCConnection: a connection between two processes, over which each may call methods of an
// object that the other exports.
//
// A connection delivers its peer's messages on a serial queue of its own, in the order in which
// they were sent; different connections run concurrently. Reply blocks and handlers run on that
// queue too. Calls through a waiting proxy return when the answer is there; the calling thread
// reads the connection itself meanwhile, so an answer comes on any thread, also inside a handler of
// this very connection. The peer's messages keep their order: while a handler waits they wait for
// their turn. So when a handler of either side waits, over one connection, for a call that the
// other's handler is to carry out, neither ends, unless one has a time limit.
//
// How it ends: an interruption means that the service behind a named connection went away; the same
// object connects anew with the next message. An invalidation is final: the peer of an endpoint's
// or an accepted connection is gone, it broke the wire's rules, or `invalidate` was called. Calls
// that wait for an answer fail at once in both cases.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"
#include "Platform/XPC/AwaitedReply.h"
#include "Platform/XPC/NSXPCConnectionError.h"
#include "Platform/XPC/NSXPCInterface.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"

namespace Platform {

class Connection;
template <class Interface>
class RemoteProxy;

// All methods: any thread. Everything but `resume`, `invalidate` and the proxies is set up before
// `resume`. An accepted connection is kept alive by the layer until its peer goes; any other by its
// owners and proxies. When the last reference goes the connection closes, and blocks and handlers
// are dropped uncalled.
class NSXPCConnection final : public NSObject {
 public:
  // To the named service. It need not be there yet: a connection is made with the first message.
  static std::shared_ptr<NSXPCConnection> initWithMachServiceName(const Text& name);
  // To the listener behind the endpoint. Without an endpoint the process stops.
  static std::shared_ptr<NSXPCConnection> initWithListenerEndpoint(
      std::shared_ptr<NSXPCListenerEndpoint> endpoint);
  // For the layer's own use.
  explicit NSXPCConnection(std::shared_ptr<Connection> connection);
  ~NSXPCConnection() override;

  // What the peer may call, and on what. Both or neither, and the object must implement the
  // interface: else `resume` stops the process.
  void setExportedInterface(NSXPCInterface interface);
  void setExportedObject(std::shared_ptr<NSObject> object);

  void setInterruptionHandler(std::function<void()> handler);
  // Like the interruption handler, and called before it: one is for the layer above, the other for
  // the application.
  void setLinkLossHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);

  // Until then nothing is delivered and calls fail. Once.
  void resume();
  // Ends the connection; its invalidation handler is called. Messages sent before may be lost.
  void invalidate();

  // Waits, on the calling thread, until everything that was sent before is on its way: the peer
  // gets it even if this process ends. False when the limit is reached before, the connection ends,
  // or something was lost: on a named connection that nobody serves, say. A loss is told at
  // least once, and until something else is sent; a call's is its error. A message of more than the
  // wire takes is not sent, and not waited for.
  bool waitUntilSent(std::chrono::milliseconds limit);

  // Inside a reply block of a named connection: the number of the service's process that sent this
  // answer. Two answers on one connection have the same number exactly when the same process sent
  // both. 0 outside.
  static std::uint64_t answeringProcess();

  // The peer's exported object. Of each call's reply block and error handler, one is called, once.
  // Messages without a reply block are sent and forgotten. The proxy keeps the connection alive.
  template <class Interface>
  std::shared_ptr<Interface> remoteObjectProxyWithErrorHandler(NSXPCErrorHandler handler) {
    return proxy<Interface>(Waiting{}, std::move(handler));
  }
  template <class Interface>
  std::shared_ptr<Interface> remoteObjectProxy() {
    return proxy<Interface>(Waiting{}, {});
  }
  // The same, with calls that return after the reply block or error handler has been called, on the
  // calling thread. With a limit, a call that has no answer by then ends with `timedOut`.
  template <class Interface>
  std::shared_ptr<Interface> synchronousRemoteObjectProxyWithErrorHandler(
      NSXPCErrorHandler handler, std::optional<std::chrono::milliseconds> limit = std::nullopt) {
    return proxy<Interface>(Waiting{true, limit}, std::move(handler));
  }

 private:
  template <class Interface>
  friend class RemoteProxy;
  friend class UntypedProxy;
  struct Waiting {
    bool waits = false;
    std::optional<std::chrono::milliseconds> limit = std::nullopt;  // none: without end
  };

  template <class Interface>
  std::shared_ptr<Interface> proxy(Waiting waiting, NSXPCErrorHandler handler) {
    auto self = std::static_pointer_cast<NSXPCConnection>(shared_from_this());
    return std::make_shared<typename Interface::Proxy>(std::move(self), waiting,
                                                       std::move(handler));
  }

  static Encoder beginMessage(std::string_view selector);
  Encoder beginCall(std::string_view selector, std::uint64_t& serial);
  void sendMessage(OutgoingFrame&& frame);
  void sendCall(std::uint64_t serial, OutgoingFrame&& frame, ReplyReader onReply,
                SharedErrorHandler onError);
  // None when there is an answer, which `onReply` has been given.
  std::optional<NSXPCConnectionError> waitForCall(std::uint64_t serial, OutgoingFrame&& frame,
                                                  const ReplyReader& onReply,
                                                  std::optional<std::chrono::milliseconds> limit);

  const std::shared_ptr<Connection> connection_;
};

// What the proxies of all interfaces have in common; see NSXPCInterface.h for how one is written.
template <class Interface>
class RemoteProxy : public Interface {
 public:
  RemoteProxy(std::shared_ptr<NSXPCConnection> connection, NSXPCConnection::Waiting waiting,
              NSXPCErrorHandler onError)
      : connection_(std::move(connection)),
        waiting_(waiting),
        onError_(onError ? std::make_shared<const NSXPCErrorHandler>(std::move(onError))
                         : nullptr) {}

 protected:
  template <auto Member, class... Arguments>
  void send(const Arguments&... arguments) {
    using Traits = Detail::MethodTraits<decltype(Member)>;
    static_assert(std::is_same_v<typename Traits::ArgumentTuple, std::tuple<Arguments...>>,
                  "a proxy's method passes on its own arguments, in order");
    constexpr std::string_view selector = Interface::protocol().template selectorOf<Member>();
    const auto all = std::tie(arguments...);
    if constexpr (Traits::hasReply) {
      std::uint64_t serial;
      Encoder encoder = connection_->beginCall(selector, serial);
      encodeValues<Traits::valueCount>(encoder, all);
      call(serial, encoder.finish(), std::get<Traits::valueCount>(all));
    } else {
      Encoder encoder = NSXPCConnection::beginMessage(selector);
      encodeValues<Traits::valueCount>(encoder, all);
      connection_->sendMessage(encoder.finish());
    }
  }

 private:
  template <std::size_t Count, class Tuple>
  static void encodeValues(Encoder& encoder, const Tuple& all) {
    encoder.head(Wire::Major::array, Count);
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (encode(encoder, std::get<I>(all)), ...);
    }
    (std::make_index_sequence<Count>());
  }

  template <class... Values>
  void call(std::uint64_t serial, OutgoingFrame&& frame, const Reply<Values...>& reply) {
    ReplyReader onReply{reply.block(), &giveAnswer<Values...>};
    if (!waiting_.waits && !AwaitedReply::isWaitingHere()) {
      connection_->sendCall(serial, std::move(frame), std::move(onReply), onError_);
      return;
    }
    const auto limit = waiting_.waits ? waiting_.limit : AwaitedReply::limitHere();
    const auto error = connection_->waitForCall(serial, std::move(frame), onReply, limit);
    if (error && onError_) (*onError_)(*error);
  }

  template <class... Values>
  static void giveAnswer(Decoder& decoder, void* block) {
    std::tuple<std::remove_cvref_t<Values>...> values;
    if (decoder.array() != sizeof...(Values)) return decoder.wrongClass();
    std::apply([&](auto&... value) { (decode(decoder, value), ...); }, values);
    if (!decoder.isSound() || !decoder.isAtEnd() || !block) return;
    auto& reply = *static_cast<typename Reply<Values...>::Block*>(block);
    std::apply([&](auto&... value) { reply.call(std::move(value)...); }, values);
  }

  const std::shared_ptr<NSXPCConnection> connection_;
  const NSXPCConnection::Waiting waiting_;
  const SharedErrorHandler onError_;
};

}  // namespace Platform
