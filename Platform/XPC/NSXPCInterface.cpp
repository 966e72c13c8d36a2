#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

Encoder beginReply(std::uint64_t serial) {
  Encoder encoder;
  encoder.head(Wire::Major::array, 3);
  encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(Wire::Kind::reply));
  encoder.head(Wire::Major::unsignedInteger, serial);
  return encoder;
}

bool NSXPCInterface::dispatch(void* implementer, std::string_view selector, Decoder& arguments,
                              bool expectsAnswer, std::shared_ptr<ReplySender> sender) const {
  if (!description_) return false;
  for (const Entry& entry : description_->entries) {
    if (entry.selector != selector) continue;
    if (entry.hasReply != expectsAnswer) return false;
    entry.invoke(implementer, arguments, std::move(sender));
    return true;
  }
  return false;
}

}  // namespace Platform
