#include "Platform/XPC/StandingRegistrations.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "Platform/Dispatch/WorkerPool.h"

namespace Platform {
namespace {

// A peer that ends every connection at once must not be asked without rest.
constexpr auto afterLoss = std::chrono::milliseconds(100);

EndpointRef served(const std::weak_ptr<NSXPCListenerEndpoint>& noted) {
  EndpointRef endpoint = noted.lock();
  return endpoint && endpoint->isServedHere() ? endpoint : nullptr;
}

}  // namespace

struct StandingRegistrations::Entry {
  explicit Entry(const EndpointRef& noted) : endpoint(noted) {}

  const std::weak_ptr<NSXPCListenerEndpoint> endpoint;
  std::uint64_t process = 0;  // that answered for it last; 0: none has, or one not to be told
  bool isAsked = false;       // being restored

  bool wasAnsweredBy(std::uint64_t answering) const { return process != 0 && process == answering; }
};

StandingRegistrations::StandingRegistrations(Text name, Service service)
    : name_(std::move(name)),
      service_(std::move(service)),
      queue_(dispatch_queue_create("StandingRegistrations", DISPATCH_QUEUE_SERIAL)) {}

StandingRegistrations::Noted StandingRegistrations::note(const EndpointRef& endpoint,
                                                         const Text& identifier) {
  if (!endpoint) return nullptr;
  Noted entry = std::make_shared<Entry>(endpoint);
  const std::lock_guard lock(mutex_);
  entries_.insert_or_assign(identifier, entry);
  return entry;
}

void StandingRegistrations::forget(const Text& identifier) {
  const std::lock_guard lock(mutex_);
  entries_.erase(identifier);
}

void StandingRegistrations::answered(const Noted& noted) {
  if (!noted) return;
  const std::lock_guard lock(mutex_);
  noted->process = NSXPCConnection::answeringProcess();
  noted->isAsked = false;
}

void StandingRegistrations::serviceIsAway() {
  const std::lock_guard lock(mutex_);
  if (!dropEnded()) return;
  for (const auto& [identifier, entry] : entries_) entry->isAsked = false;
  // Watched first, asked then: so it cannot appear unseen in between.
  if (!watch_) {
    watch_ = std::make_unique<ServiceWatch>(name_, queue_, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->check();
    });
  }
  if (std::exchange(isDue_, true)) return;
  WorkerPool::shared().after(afterLoss, queue_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    {
      const std::lock_guard due(self->mutex_);
      self->isDue_ = false;
    }
    self->check();
  });
}

// Whether anything is left. Called with mutex_ held.
bool StandingRegistrations::dropEnded() {
  std::erase_if(entries_, [](const auto& entry) { return !served(entry.second->endpoint); });
  if (entries_.empty()) watch_.reset();
  return !entries_.empty();
}

void StandingRegistrations::check() {
  Text first;
  {
    const std::lock_guard lock(mutex_);
    if (!dropEnded()) return;
    const bool isUnderWay = std::any_of(entries_.begin(), entries_.end(),
                                        [](const auto& each) { return each.second->isAsked; });
    if (isUnderWay) return;
    first = entries_.begin()->first;
    entries_.begin()->second->isAsked = true;
  }
  ask(first, true);
}

void StandingRegistrations::ask(const Text& identifier, bool isFirst) {
  service_.retrieve(
      identifier,
      [weak = weak_from_this(), identifier, isFirst](const std::optional<EndpointRef>& found) {
        const auto self = weak.lock();
        if (self) self->take(identifier, isFirst, found ? Outcome::known : Outcome::unknown);
      },
      [weak = weak_from_this(), identifier, isFirst](NSXPCConnectionError error) {
        const auto self = weak.lock();
        // When nobody is there, the watch tells when to ask again.
        const bool isNobodyThere = error == NSXPCConnectionError::interrupted;
        if (self) self->take(identifier, isFirst && !isNobodyThere, Outcome::failed);
      });
}

void StandingRegistrations::take(const Text& identifier, bool isFirst, Outcome outcome) {
  std::vector<Text> others;
  {
    const std::lock_guard lock(mutex_);
    if (outcome != Outcome::failed) watch_.reset();
    const std::uint64_t process = NSXPCConnection::answeringProcess();
    const auto entry = entries_.find(identifier);
    if (entry != entries_.end() && std::exchange(entry->second->isAsked, false)) {
      if (outcome == Outcome::known) entry->second->process = process;
      if (outcome == Outcome::unknown && !entry->second->wasAnsweredBy(process)) {
        offer(identifier, entry->second);
      }
    }
    if (!isFirst) return;
    for (const auto& [other, its] : entries_) {
      if (its->wasAnsweredBy(process) || std::exchange(its->isAsked, true)) continue;
      others.push_back(other);
    }
  }
  for (const Text& other : others) ask(other, false);
}

// Sent under the lock, which takes no more than appending it, so that no `forget` comes between.
void StandingRegistrations::offer(const Text& identifier, const Noted& entry) {
  const EndpointRef endpoint = served(entry->endpoint);
  if (!endpoint) return;
  entry->isAsked = true;  // until it is answered
  service_.retrieve(
      identifier,
      [weak = weak_from_this(), identifier, entry](const std::optional<EndpointRef>& found) {
        const auto self = weak.lock();
        if (self && found) self->putBack(*found, identifier, entry);
      },
      {});
  service_.store(
      endpoint, identifier,
      [weak = weak_from_this(), entry](bool) {
        if (const auto self = weak.lock()) self->answered(entry);
      },
      [weak = weak_from_this(), identifier](NSXPCConnectionError) {
        if (const auto self = weak.lock()) self->take(identifier, false, Outcome::failed);
      });
}

void StandingRegistrations::putBack(const EndpointRef& replaced, const Text& identifier,
                                    const Noted& offered) {
  const std::lock_guard lock(mutex_);
  const auto entry = entries_.find(identifier);
  if (entry == entries_.end() || entry->second != offered) return;
  service_.store(replaced, identifier, {}, {});
}

}  // namespace Platform
