// UntypedProxy: a peer's exported object whose interface is known at run time only, as tools need
// it. Selector and arguments are taken as they come; the peer refuses what it does not know.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "Platform/XPC/NSXPCConnection.h"

namespace Platform {

// A value; it keeps the connection alive. Any thread. The objects in the arguments are endpoints,
// and nothing is nested deeper than Wire.h allows: else the process stops.
class UntypedProxy {
 public:
  explicit UntypedProxy(std::shared_ptr<NSXPCConnection> connection)
      : connection_(std::move(connection)) {}

  // Both are false, and nothing is sent, when the message is larger than the wire allows.
  bool send(std::string_view selector, const Array& arguments) const {
    Encoder encoder = NSXPCConnection::beginMessage(selector);
    encodeAll(encoder, arguments);
    OutgoingFrame frame = encoder.finish();
    if (!frame.isSendable()) return false;
    connection_->sendMessage(std::move(frame));
    return true;
  }

  // Of the reply block and the error handler one is called, once, on the connection's queue.
  bool call(std::string_view selector, const Array& arguments, std::function<void(Array)> reply,
            NSXPCErrorHandler onError) const {
    std::uint64_t serial;
    Encoder encoder = connection_->beginCall(selector, serial);
    encodeAll(encoder, arguments);
    OutgoingFrame frame = encoder.finish();
    if (!frame.isSendable()) return false;
    auto onReply = [reply = std::move(reply)](Decoder& decoder) {
      Array values;  // grows with what is there, not with what was promised
      for (auto left = decoder.array(); left > 0 && decoder.isSound(); --left) {
        decode(decoder, values.emplace_back());
      }
      if (decoder.isSound() && decoder.isAtEnd()) reply(std::move(values));
    };
    connection_->sendCall(serial, std::move(frame), std::move(onReply),
                          std::make_shared<const NSXPCErrorHandler>(std::move(onError)));
    return true;
  }

 private:
  static void encodeAll(Encoder& encoder, const Array& arguments) {
    encoder.head(Wire::Major::array, arguments.size());
    for (const Value& argument : arguments) encode(encoder, argument);
  }

  const std::shared_ptr<NSXPCConnection> connection_;
};

}  // namespace Platform
