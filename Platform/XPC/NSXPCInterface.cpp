#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

bool NSXPCInterface::dispatch(void* implementer, std::string_view selector, Decoder& arguments,
                              IncomingRequest& request) const {
  if (!description_) return false;
  for (const Entry& entry : description_->entries) {
    if (entry.selector != selector) continue;
    if (entry.hasReply != request.isCall()) return false;
    entry.invoke(implementer, arguments, request);
    return true;
  }
  return false;
}

}  // namespace Platform
