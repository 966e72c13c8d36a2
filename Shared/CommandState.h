// CommandState: how far a command has come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Gantrel_Sync_Helper {

enum class CommandState : std::int64_t { none, executing, failed, finished };

}  // namespace Gantrel_Sync_Helper

// The hash is the position, the same in every build.
template <>
struct std::hash<Gantrel_Sync_Helper::CommandState> {
  std::size_t operator()(Gantrel_Sync_Helper::CommandState state) const noexcept {
    return static_cast<std::size_t>(state);
  }
};
