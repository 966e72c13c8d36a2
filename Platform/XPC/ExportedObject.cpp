#include "Platform/XPC/ExportedObject.h"

#include <utility>

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Runtime/Stop.h"

namespace Platform {

void ExportedObject::begin() {
  if (interface_) implementer_ = interface_.implementer(object_.get());
  if ((interface_ || object_) && !implementer_) stopProcess(ExitStatus::software);
}

bool ExportedObject::call(Frame& frame, Decoder& decoder, bool expectsAnswer,
                          const std::shared_ptr<ReplySender>& request) const {
  const std::string_view selector = decoder.text();
  if (!decoder.isSound()) return false;
  if (frame.lacksDescriptors) return true;
  if (implementer_) {
    // A call is kept by its reply block, a message by the tasks that come of it.
    const TasksKeep keep(expectsAnswer ? nullptr : request);
    if (interface_.dispatch(implementer_, selector, decoder, expectsAnswer, request) &&
        decoder.isSound()) {
      return true;
    }
  }
  if (decoder.isMalformed()) return false;
  // It is not for us: then it must be well-formed all the same.
  Decoder whole(frame);
  whole.skipMessage();
  return whole.isSound() && whole.isAtEnd();
}

std::shared_ptr<NSObject> ExportedObject::release() {
  implementer_ = nullptr;
  return std::exchange(object_, nullptr);
}

}  // namespace Platform
