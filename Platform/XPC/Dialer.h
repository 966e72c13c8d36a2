// Dialer: how a connection comes to its links, one after the other, and what waits for the next.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Platform/XPC/Link.h"
#include "Platform/XPC/SenderProcess.h"
#include "Platform/XPC/Socket.h"

namespace Platform {

// Guarded by its connection.
class Dialer {
 public:
  struct Named {
    Text service;
  };
  struct Endpoint {
    EndpointRef endpoint;
  };
  struct Accepted {};  // its one link was there from the start
  using Target = std::variant<Named, Endpoint, Accepted>;
  using Delay = std::chrono::milliseconds;

  explicit Dialer(Target target) : target_(std::move(target)) {}

  bool isNamed() const { return std::holds_alternative<Named>(target_); }

  std::shared_ptr<Link> linkFor(UniqueFd socket) {
    return std::make_shared<Link>(++lastLink_, std::move(socket));
  }

  // Tries once, without waiting. A link, or the reason why there is none.
  std::pair<std::shared_ptr<Link>, ConnectOutcome> dial();
  // For how long not to dial: a service that breaks the rules must not be asked without rest.
  Delay restLeft() const;
  void restAfterFault();

  // Frames that wait for a link, while somebody will dial again for them.
  bool isTrying() const { return isTrying_; }
  void setTrying(bool isTrying) { isTrying_ = isTrying; }
  void keep(OutgoingFrame&& frame) { unsent_.push_back(std::move(frame)); }
  void handOver(Link& link);
  void dropUnsent() { unsent_.clear(); }

  // The number of the process that the kernel names as a sender: the same as the last one's exactly
  // when it is the same process.
  std::uint64_t processNumber(pid_t sender);

 private:
  const Target target_;
  std::uint64_t lastLink_ = 0;
  std::vector<OutgoingFrame> unsent_;
  bool isTrying_ = false;
  std::chrono::steady_clock::time_point restUntil_;
  std::optional<SenderProcess> lastProcess_;
  std::uint64_t lastProcessNumber_ = 0;
};

}  // namespace Platform
