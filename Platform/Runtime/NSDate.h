// NSDate: an absolute point in time.
#pragma once

#include <compare>

namespace Platform {

using NSTimeInterval = double;  // seconds

struct NSDate {
  NSTimeInterval timeIntervalSince1970 = 0;  // seconds since 1970-01-01 00:00:00 UTC

  friend auto operator<=>(const NSDate&, const NSDate&) = default;
};

}  // namespace Platform
