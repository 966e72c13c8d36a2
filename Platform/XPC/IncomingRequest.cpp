#include "Platform/XPC/IncomingRequest.h"

#include <utility>

namespace Platform {
namespace {

OutgoingFrame refusalOf(std::uint64_t serial) {
  Encoder encoder;
  encoder.head(Wire::Major::array, 2);
  encoder.head(Wire::Major::unsignedInteger, static_cast<std::uint64_t>(Wire::Kind::refusal));
  encoder.head(Wire::Major::unsignedInteger, serial);
  return encoder.finish();
}

}  // namespace

IncomingRequest::IncomingRequest(std::optional<std::uint64_t> callSerial,
                                 std::weak_ptr<RequestSource> source, std::uint64_t link)
    : source_(std::move(source)), link_(link), isCall_(callSerial.has_value()) {
  serial = callSerial.value_or(0);
}

IncomingRequest::~IncomingRequest() {
  if (sent_.test()) return;
  if (isCall_) {
    if (!source_.expired()) IncomingRequest::send(refusalOf(serial));
  } else if (const auto source = source_.lock()) {
    source->requestIsDone(link_);
  }
}

void IncomingRequest::send(OutgoingFrame reply) {
  if (!isCall_ || sent_.test_and_set()) return;
  const auto source = source_.lock();
  if (!source) return;
  if (!reply.isSendable()) reply = refusalOf(serial);
  source->answer(link_, std::move(reply));
}

}  // namespace Platform
