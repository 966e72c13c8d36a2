// GApp: the product's three applications, and the bundle identifiers under which the system knows
// them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

extern const Platform::Text& mainAppBundleIdentifier;
extern const Platform::Text& menuAppBundleIdentifier;
extern const Platform::Text& agentAppBundleIdentifier;

enum class GApp : std::int64_t { main, menu, agent };

// The bundle identifier of an application that a user sees. Asked for the agent's, it stops the
// process with a fatal-error report: code that needs that one reads agentAppBundleIdentifier.
const Platform::Text& bundleIdentifier(GApp app);

}  // namespace Gantrel_Sync_Helper

// The hash is the ordinal, the same in every build.
template <>
struct std::hash<Gantrel_Sync_Helper::GApp> {
  std::size_t operator()(Gantrel_Sync_Helper::GApp app) const noexcept {
    return static_cast<std::size_t>(app);
  }
};
