// Answer: the way back for one call of the peer. One that goes without having been sent refuses the
// call.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Platform/XPC/Codec.h"
#include "Platform/XPC/NSXPCInterface.h"

namespace Platform {

class Connection;

// Any thread.
class Answer final : public ReplySender {
 public:
  // `connection` is empty when no answer is expected. The link is the one on which the call came.
  Answer(std::uint64_t callSerial, std::weak_ptr<Connection> connection, std::uint64_t linkNumber);
  ~Answer() override;

  // Only the first does anything. A reply that is too large to be sent becomes a refusal.
  void send(OutgoingFrame reply) override;

 private:
  const std::weak_ptr<Connection> connection_;
  const std::uint64_t linkNumber_;
  std::atomic_flag sent_;
};

}  // namespace Platform
