// ExportedObject: what a connection's peer may call, and how a request reaches it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Runtime/NSObject.h"
#include "Platform/XPC/Codec.h"
#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

// Guarded by its connection; `call` and `release` only in tasks of the connection's queue, and
// `call`, which changes nothing, without the lock.
class ExportedObject {
 public:
  void setInterface(NSXPCInterface interface) { interface_ = interface; }
  void setObject(std::shared_ptr<NSObject> object) { object_ = std::move(object); }

  // From here on it may be called; answers go to `source`. Stops the process when there is an
  // object or an interface without the other, or when the object does not implement the interface.
  void begin(std::weak_ptr<RequestSource> source);
  bool isThere() const { return implementer_ != nullptr; }

  // Carries the request out that came on that link, a call if it has a serial. What is not of the
  // interface, or does not fit its declaration, has no effect. False when the frame is malformed.
  // The decoder stands at the selector.
  bool call(Frame& frame, Decoder& decoder, std::optional<std::uint64_t> serial,
            std::uint64_t link) const;

  // The object, which is called no more.
  std::shared_ptr<NSObject> release();

 private:
  bool carryOut(std::string_view selector, Decoder& decoder, IncomingRequest& request) const;

  NSXPCInterface interface_;
  std::shared_ptr<NSObject> object_;
  void* implementer_ = nullptr;  // object_ as what interface_ calls
  std::weak_ptr<RequestSource> source_;
};

}  // namespace Platform
