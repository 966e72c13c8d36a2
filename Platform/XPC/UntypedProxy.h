// UntypedProxy: a peer's exported object whose interface is known at run time only, as tools need
// it. Selector and arguments are taken as they come; the peer refuses what it does not know.
// A message that is larger, or nested deeper, than the wire takes is refused before it is sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/XPC/NSXPCConnection.h"

namespace Platform {

// A value; it keeps the connection alive. Any thread. The objects in the arguments are endpoints:
// else the process stops.
class UntypedProxy {
 public:
  explicit UntypedProxy(std::shared_ptr<NSXPCConnection> connection)
      : connection_(std::move(connection)) {}

  // Whether the wire takes a message with these.
  static bool isSendable(std::string_view selector, const Array& arguments) {
    Encoder encoder = NSXPCConnection::beginMessage(selector);
    encodeAll(encoder, arguments);
    return encoder.finish().isSendable();
  }

  void send(std::string_view selector, const Array& arguments) const {
    Encoder encoder = NSXPCConnection::beginMessage(selector);
    encodeAll(encoder, arguments);
    connection_->sendMessage(encoder.finish());
  }

  // Waits on the calling thread, at most until the limit. None when the answer is in `answer`.
  std::optional<NSXPCConnectionError> call(std::string_view selector, const Array& arguments,
                                           std::chrono::milliseconds limit, Array& answer) const {
    std::uint64_t serial;
    Encoder encoder = connection_->beginCall(selector, serial);
    encodeAll(encoder, arguments);
    const auto read = [](Decoder& decoder, void* into) {
      auto& values = *static_cast<Array*>(into);
      values.clear();  // and grows with what is there, not with what was promised
      for (auto left = decoder.array(); left > 0 && decoder.isSound(); --left) {
        decode(decoder, values.emplace_back());
      }
    };
    const ReplyReader onReply{std::shared_ptr<void>(std::shared_ptr<void>(), &answer), read};
    return connection_->waitForCall(serial, encoder.finish(), onReply, limit);
  }

 private:
  static void encodeAll(Encoder& encoder, const Array& arguments) {
    encoder.head(Wire::Major::array, arguments.size());
    for (const Value& argument : arguments) encode(encoder, argument);
  }

  const std::shared_ptr<NSXPCConnection> connection_;
};

}  // namespace Platform
