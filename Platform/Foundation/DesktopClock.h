// The clock that the user chose on the desktop, apart from what the locale says.
#pragma once

#include <optional>

namespace Platform {

enum class ClockChoice { twelveHours, twentyFourHours };

// The choice of this moment, of this or another process; none while the user has made none, and on
// a machine without a desktop, its settings' description or a way to keep them. Says nothing on
// standard error either way. Any thread; callers take turns.
std::optional<ClockChoice> desktopClockChoice();

}  // namespace Platform
