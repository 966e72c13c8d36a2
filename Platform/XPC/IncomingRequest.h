// IncomingRequest: one call or message of a peer, from its delivery until it is done with.
//
// It is the way back for a call's answer; one that goes without having been answered refuses the
// call. A message has no answer: it is done with when what its method did, and the tasks that the
// method appended to queues, have gone.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/XPC/Codec.h"

namespace Platform {

// Where requests come from: the connection. Any thread.
class RequestSource {
 public:
  // Each request of a link ends by one of these, once.
  virtual void answer(std::uint64_t link, OutgoingFrame&& frame) = 0;
  virtual void requestIsDone(std::uint64_t link) = 0;

 protected:
  ~RequestSource() = default;
};

// Moves, on one thread, until it has its place; then any thread.
class IncomingRequest {
 public:
  // `callSerial` is none for a message. `link` is the number of the link on which it came.
  IncomingRequest(std::optional<std::uint64_t> callSerial, std::weak_ptr<RequestSource> source,
                  std::uint64_t link)
      : source_(std::move(source)),
        link_(link),
        serial_(callSerial.value_or(0)),
        isCall_(callSerial.has_value()) {}
  // What has been moved from is done with.
  IncomingRequest(IncomingRequest&& other) noexcept
      : source_(std::move(other.source_)),
        link_(other.link_),
        serial_(other.serial_),
        isCall_(other.isCall_),
        isOver_(other.isOver_.exchange(true)) {}
  ~IncomingRequest() {
    if (!isOver_) end();
  }

  bool isCall() const { return isCall_; }

  // A call's: the answer up to its values, and what sends it with them. Only the first that is sent
  // does anything; one that is too large becomes a refusal.
  Encoder beginAnswer() const;
  void send(Encoder& answer);

 private:
  void end();

  std::weak_ptr<RequestSource> source_;
  const std::uint64_t link_;
  const std::uint64_t serial_;
  const bool isCall_;
  std::atomic<bool> isOver_ = false;
};

}  // namespace Platform
