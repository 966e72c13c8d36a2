// The endpoint map of the peers' servers: as small as a broker's map can be.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Benchmarks/Broker/Descriptor.h"

namespace Benchmark {

// Any thread. The one lock is never contended for longer than a look-up takes.
class Registry {
 public:
  using Endpoint = std::shared_ptr<const Descriptor>;

  void put(std::string_view identifier, Descriptor endpoint) {
    auto shared = std::make_shared<const Descriptor>(std::move(endpoint));
    const std::lock_guard lock(mutex_);
    const auto found = endpoints_.find(identifier);
    if (found != endpoints_.end()) {
      found->second.swap(shared);
    } else {
      endpoints_.emplace(identifier, std::move(shared));
    }
  }

  // Null when there is none. The descriptor stays open as long as the result lives.
  Endpoint find(std::string_view identifier) const {
    const std::lock_guard lock(mutex_);
    const auto found = endpoints_.find(identifier);
    return found == endpoints_.end() ? nullptr : found->second;
  }

 private:
  struct Hash : std::hash<std::string_view> {
    using is_transparent = void;
  };

  mutable std::mutex mutex_;
  std::unordered_map<std::string, Endpoint, Hash, std::equal_to<>> endpoints_;
};

}  // namespace Benchmark
