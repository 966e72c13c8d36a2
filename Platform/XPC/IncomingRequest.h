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
#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

// Where requests come from: the connection. Any thread.
class RequestSource {
 public:
  // Each request of a link ends by one of these, once.
  virtual void answer(std::uint64_t link, OutgoingFrame frame) = 0;
  virtual void requestIsDone(std::uint64_t link) = 0;

 protected:
  ~RequestSource() = default;
};

// Any thread.
class IncomingRequest final : public ReplySender {
 public:
  // `callSerial` is none for a message. `link` is the number of the link on which it came.
  IncomingRequest(std::optional<std::uint64_t> callSerial, std::weak_ptr<RequestSource> source,
                  std::uint64_t link);
  ~IncomingRequest() override;

  // Only the first does anything. A reply that is too large to be sent becomes a refusal.
  void send(OutgoingFrame reply) override;

 private:
  const std::weak_ptr<RequestSource> source_;
  const std::uint64_t link_;
  const bool isCall_;
  std::atomic_flag sent_;
};

}  // namespace Platform
