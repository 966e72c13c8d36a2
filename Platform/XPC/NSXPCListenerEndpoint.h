// NSXPCListenerEndpoint: the transferable handle of an anonymous listener.
//
// It is a kernel capability: an O_PATH descriptor of the listener's socket, whose name is gone from
// the file system. Whoever holds it can connect; it cannot be read, written or shut down, and it
// travels between processes beside a message. When its listener goes, connecting is refused, and
// the endpoint is still a value like any other.
#pragma once

#include <memory>

#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

// Immutable. Any thread.
class NSXPCListenerEndpoint final : public NSObject {
 public:
  // Takes a descriptor that came from outside. Null, and the descriptor stays where it is, when it
  // is anything but an O_PATH descriptor of a socket: closing any other kind may block.
  static std::shared_ptr<NSXPCListenerEndpoint> adopt(UniqueFd& descriptor);

  // For the layer's own use: opened with O_PATH by the caller. `listeningSocket` is its listener's,
  // when that is one of this process.
  explicit NSXPCListenerEndpoint(UniqueFd descriptor,
                                 std::weak_ptr<const UniqueFd> listeningSocket = {})
      : descriptor_(std::move(descriptor)), listeningSocket_(std::move(listeningSocket)) {}
  // In a connection's call the descriptor may be closed a moment later, with others.
  ~NSXPCListenerEndpoint() override;

  int descriptor() const { return descriptor_.get(); }

  // Whether its listener is one of this process and has not ended.
  bool isServedHere() const { return !listeningSocket_.expired(); }

 private:
  UniqueFd descriptor_;
  const std::weak_ptr<const UniqueFd> listeningSocket_;
};

}  // namespace Platform
