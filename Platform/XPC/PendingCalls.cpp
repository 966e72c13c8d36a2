#include "Platform/XPC/PendingCalls.h"

#include <algorithm>
#include <utility>

namespace Platform {

void WaitingCall::end(NSXPCConnectionError why) {
  if (!isDone()) error = why;
  wake.notify_one();
}

void PendingCalls::add(std::uint64_t serial, PendingCall call) {
  call.age = ends_;
  if (spare_) {
    spare_.key() = serial;
    spare_.mapped() = std::move(call);
    blocks_.insert(std::move(spare_));
  } else {
    blocks_.emplace(serial, std::move(call));
  }
}

bool PendingCalls::giveToWaiting(Frame& frame, const Origin& origin, const WaitingCall* reader) {
  Decoder decoder(frame);
  decoder.array();
  const auto kind = static_cast<Wire::Kind>(decoder.unsignedInteger());
  const std::uint64_t serial = decoder.unsignedInteger();
  if (!decoder.isSound() || (kind != Wire::Kind::reply && kind != Wire::Kind::refusal)) {
    return false;
  }
  const auto found = std::ranges::find(waiting_, serial, &WaitingCall::serial);
  if (found == waiting_.end() || (*found)->isDone()) return false;
  if (*found != reader) frame.keep();
  (*found)->answer = std::move(frame);
  (*found)->origin = origin;
  if (*found != reader) (*found)->wake.notify_one();
  return true;
}

std::optional<PendingCall> PendingCalls::take(std::uint64_t serial) {
  Blocks::node_type ended = blocks_.extract(serial);
  if (!ended) return std::nullopt;
  PendingCall call = std::move(ended.mapped());
  spare_ = std::move(ended);
  return call;
}

std::uint64_t PendingCalls::endAll(NSXPCConnectionError why) {
  for (WaitingCall* call : waiting_) call->end(why);
  return ends_++;
}

PendingCalls::Blocks PendingCalls::takeEnded(std::uint64_t end) {
  Blocks ended;
  for (auto next = blocks_.begin(); next != blocks_.end();) {
    const auto call = next++;
    if (call->second.age <= end) ended.insert(blocks_.extract(call));
  }
  return ended;
}

void PendingCalls::wakeFirst() {
  if (!waiting_.empty()) waiting_.front()->wake.notify_one();
}

void PendingCalls::wakeAll() {
  for (WaitingCall* call : waiting_) call->wake.notify_one();
}

}  // namespace Platform
