#include "Platform/XPC/ExportedObject.h"

#include <utility>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Runtime/Stop.h"

namespace Platform {

void ExportedObject::begin(std::weak_ptr<RequestSource> source) {
  source_ = std::move(source);
  if (interface_) implementer_ = interface_.implementer(object_.get());
  if ((interface_ || object_) && !implementer_) stopProcess(ExitStatus::software);
}

bool ExportedObject::call(Frame& frame, Decoder& decoder, std::optional<std::uint64_t> serial,
                          std::uint64_t link) const {
  IncomingRequest request(serial, source_, link);
  const std::string_view selector = decoder.text();
  if (!decoder.isSound()) return false;
  if (frame.lacksDescriptors) return true;
  if (implementer_ && carryOut(selector, decoder, request) && decoder.isSound()) return true;
  if (decoder.isMalformed()) return false;
  // It is not for us: then it must be well-formed all the same.
  Decoder whole(frame);
  whole.skipMessage();
  return whole.isSound() && whole.isAtEnd();
}

bool ExportedObject::carryOut(std::string_view selector, Decoder& decoder,
                              IncomingRequest& request) const {
  // A call is kept by its reply block, a message by the tasks that come of it.
  if (request.isCall()) return interface_.dispatch(implementer_, selector, decoder, request);
  const auto message = std::make_shared<IncomingRequest>(std::move(request));
  const TasksKeep keep(message);
  return interface_.dispatch(implementer_, selector, decoder, *message);
}

std::shared_ptr<NSObject> ExportedObject::release() {
  implementer_ = nullptr;
  return std::exchange(object_, nullptr);
}

}  // namespace Platform
