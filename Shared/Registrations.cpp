#include "Shared/Registrations.h"

#include <utility>
#include <vector>

#include "Platform/Dispatch/WorkerPool.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// A peer that ends every connection at once must not be asked without rest.
constexpr auto afterInterruption = std::chrono::milliseconds(100);

EndpointRef served(const std::weak_ptr<NSXPCListenerEndpoint>& noted) {
  EndpointRef endpoint = noted.lock();
  return endpoint && endpoint->isServedHere() ? endpoint : nullptr;
}

}  // namespace

Registrations::Registrations(Text serviceName, std::weak_ptr<NSXPCConnection> connection)
    : serviceName_(std::move(serviceName)),
      connection_(std::move(connection)),
      queue_(dispatch_queue_create("Registrations", DISPATCH_QUEUE_SERIAL)) {}

void Registrations::note(const EndpointRef& endpoint, const Text& identifier) {
  const std::lock_guard lock(mutex_);
  endpoints_.insert_or_assign(identifier, endpoint);
}

void Registrations::forget(const Text& identifier) {
  const std::lock_guard lock(mutex_);
  endpoints_.erase(identifier);
}

void Registrations::agentIsAway() {
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(endpoints_, [](const auto& entry) { return !served(entry.second); });
    if (endpoints_.empty()) return;
    // Watched first, asked then: so it cannot appear unseen in between.
    if (!watch_) {
      watch_ = ServiceWatch::start(serviceName_, queue_, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->restoreAll();
      });
    }
    if (std::exchange(isDue_, true)) return;
  }
  WorkerPool::shared().after(afterInterruption, queue_, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->restoreAll();
  });
}

void Registrations::restoreAll() {
  std::vector<Text> identifiers;
  {
    const std::lock_guard lock(mutex_);
    isDue_ = false;
    for (const auto& entry : endpoints_) identifiers.push_back(entry.first);
  }
  const auto connection = connection_.lock();
  if (!connection) return;
  const auto agent = connection->remoteObjectProxy<EndPointHandling>();
  for (const Text& identifier : identifiers) {
    agent->retrieveListenerEndpoint(
        identifier, [weak = weak_from_this(), identifier](std::optional<EndpointRef> found) {
          if (const auto self = weak.lock()) self->agentAnswered(identifier, found.has_value());
        });
  }
}

void Registrations::agentAnswered(const Text& identifier, bool isKnown) {
  std::shared_ptr<ServiceWatch> watch;  // ends after the lock
  const std::lock_guard lock(mutex_);
  watch.swap(watch_);
  if (isKnown) return;
  const auto entry = endpoints_.find(identifier);
  if (entry == endpoints_.end()) return;
  const EndpointRef endpoint = served(entry->second);
  const auto connection = connection_.lock();
  if (!endpoint || !connection) return;
  // Sent under the lock, which takes no more than appending it, so that no `forget` comes between.
  connection->remoteObjectProxy<EndPointHandling>()->registerListenerEndpoint(endpoint, identifier,
                                                                              {});
}

}  // namespace Gantrel_Sync_Helper
