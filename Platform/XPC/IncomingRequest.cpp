#include "Platform/XPC/IncomingRequest.h"

namespace Platform {
namespace {

OutgoingFrame refusalOf(std::uint64_t serial) {
  Encoder encoder(2, Wire::Kind::refusal);
  encoder.unsignedInteger(serial);
  return encoder.finish();
}

}  // namespace

void IncomingRequest::end() {
  const auto source = source_.lock();
  if (!source) return;
  if (isCall_) {
    source->answer(link_, refusalOf(serial_));
  } else {
    source->requestIsDone(link_);
  }
}

Encoder IncomingRequest::beginAnswer() const {
  Encoder encoder(3, Wire::Kind::reply);
  encoder.unsignedInteger(serial_);
  return encoder;
}

void IncomingRequest::send(Encoder& answer) {
  if (isOver_.exchange(true)) return;
  const auto source = source_.lock();
  if (!source) return;
  if (OutgoingFrame&& frame = answer.finish(); frame.isSendable()) {
    source->answer(link_, std::move(frame));
  } else {
    source->answer(link_, refusalOf(serial_));
  }
}

}  // namespace Platform
