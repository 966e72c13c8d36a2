#include "Platform/XPC/Dialer.h"

#include <algorithm>
#include <string>

#include "Platform/XPC/NamedService.h"

namespace Platform {
namespace {

constexpr auto restAfterFaults = std::chrono::milliseconds(100);

struct ConnectVisitor {
  Connected operator()(const Dialer::Named& target) const {
    const auto path = namedServicePath(target.service);
    return path ? connectTo(*path) : Connected{};
  }
  Connected operator()(const Dialer::Endpoint& target) const {
    return connectTo("/proc/self/fd/" + std::to_string(target.endpoint->descriptor()));
  }
};

}  // namespace

std::pair<std::shared_ptr<Link>, ConnectOutcome> Dialer::dial() {
  if (!dialing_) return {nullptr, ConnectOutcome::refused};
  if (restLeft() > Delay::zero()) return {nullptr, ConnectOutcome::tryLater};
  Connected connected = std::visit(ConnectVisitor(), dialing_->target);
  if (connected.outcome != ConnectOutcome::connected) return {nullptr, connected.outcome};
  auto link = linkFor(std::move(connected.socket));
  if (isNamed()) link->askForSender();
  return {std::move(link), ConnectOutcome::connected};
}

Dialer::Delay Dialer::restLeft() const {
  const auto left = dialing_->restUntil - std::chrono::steady_clock::now();
  return std::max(std::chrono::ceil<Delay>(left), Delay::zero());
}

void Dialer::restAfterFault() {
  if (dialing_) dialing_->restUntil = std::chrono::steady_clock::now() + restAfterFaults;
}

void Dialer::handOver(Link& link) {
  for (OutgoingFrame& frame : dialing_->unsent) link.append(std::move(frame));
  dialing_->unsent.clear();
  dialing_->unsent.shrink_to_fit();
}

void Dialer::dropUnsent() {
  if (!dialing_ || dialing_->unsent.empty()) return;
  lose();
  dialing_->unsent.clear();
}

bool Dialer::hasLost() {
  if (!dialing_ || dialing_->loss == Loss::none) return false;
  dialing_->loss = Loss::told;
  return true;
}

std::uint64_t Dialer::processNumber(pid_t sender) {
  const SenderProcess process(sender);
  if (!dialing_->lastProcess.isStill(sender)) ++dialing_->lastProcessNumber;
  dialing_->lastProcess = process;
  return dialing_->lastProcessNumber;
}

}  // namespace Platform
