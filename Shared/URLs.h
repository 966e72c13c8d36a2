// URLs: the product's vocabulary for addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

// A scope, never an object.
class URLs {
 public:
  URLs() = delete;

  enum class ConnectionProtocol : std::int64_t { http, https };

  // The case whose raw value is the whole of `rawValue`, exactly.
  static std::optional<ConnectionProtocol> connectionProtocol(const Platform::Text& rawValue);
};

// "http://" or "https://"
Platform::Text rawValue(URLs::ConnectionProtocol connectionProtocol);

}  // namespace Gantrel_Sync_Helper

// The hash is the ordinal, the same in every build.
template <>
struct std::hash<Gantrel_Sync_Helper::URLs::ConnectionProtocol> {
  std::size_t operator()(
      Gantrel_Sync_Helper::URLs::ConnectionProtocol connectionProtocol) const noexcept {
    return static_cast<std::size_t>(connectionProtocol);
  }
};
