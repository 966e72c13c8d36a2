// Dialer: how a connection comes to its links, one after the other, and what waits for the next.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
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
  using Target = std::variant<Named, Endpoint>;
  using Delay = std::chrono::milliseconds;

  Dialer() = default;  // of an accepted connection, whose one link was there from the start
  explicit Dialer(Target target) : dialing_(new Dialing{std::move(target)}) {}

  bool isNamed() const { return dialing_ && std::holds_alternative<Named>(dialing_->target); }

  std::shared_ptr<Link> linkFor(UniqueFd socket) {
    return std::make_shared<Link>(++lastLink_, std::move(socket));
  }

  // Tries once, without waiting. A link, or the reason why there is none.
  std::pair<std::shared_ptr<Link>, ConnectOutcome> dial();
  // For how long not to dial: a service that breaks the rules must not be asked without rest.
  Delay restLeft() const;
  void restAfterFault();

  // Frames that wait for a link, while somebody will dial again for them.
  bool isTrying() const { return dialing_ && dialing_->isTrying; }
  void setTrying(bool isTrying) {
    if (dialing_) dialing_->isTrying = isTrying;
  }
  void keep(OutgoingFrame&& frame) { dialing_->unsent.push_back(std::move(frame)); }
  void handOver(Link& link);
  void dropUnsent();

  // What was handed over and never left, on whichever link, is told of at least once, by `hasLost`,
  // and until something else is handed over. A connection with one link ends with its losses.
  void lose() {
    if (dialing_) dialing_->loss = Loss::untold;
  }
  void nothingNewIsLost() {
    if (dialing_ && dialing_->loss == Loss::told) dialing_->loss = Loss::none;
  }
  bool hasLost();

  // The number of the process that the kernel names as a sender: the same as the last one's when it
  // is the same process (SenderProcess.h).
  std::uint64_t processNumber(pid_t sender);

 private:
  enum class Loss { none, untold, told };
  struct Dialing {
    const Target target;
    std::vector<OutgoingFrame> unsent = {};
    bool isTrying = false;
    Loss loss = Loss::none;
    std::chrono::steady_clock::time_point restUntil = {};
    SenderProcess lastProcess = {};
    std::uint64_t lastProcessNumber = 0;
  };

  std::uint64_t lastLink_ = 0;
  std::unique_ptr<Dialing> dialing_;  // accepted connections, a service's many, do without
};

}  // namespace Platform
