// NSDateFormatter: dates as text, by the patterns of Unicode Technical Standard #35, Part 4.
//
// The default time zone is the one of the process at the moment of each call, as the C library has
// it ($TZ, else /etc/localtime), so that a text agrees with what every other program shows.
#pragma once

#include <optional>
#include <string_view>

#include "Platform/Foundation/NSCalendar.h"
#include "Platform/Foundation/NSLocale.h"
#include "Platform/Runtime/NSDate.h"
#include "Platform/Runtime/Text.h"

namespace Platform {

// Used by one thread at a time, any thread.
class NSDateFormatter {
 public:
  void setLocale(NSLocale locale) { locale_ = std::move(locale); }
  // Without one, the locale's own.
  void setCalendar(NSCalendar calendar) { calendar_ = calendar; }
  void setDateFormat(Text pattern) { pattern_ = std::move(pattern); }

  // In the default time zone. None for a date that is not a number or beyond the calendars (some
  // five million years), and when the locale data cannot be had.
  std::optional<Text> stringFromDate(const NSDate& date) const;

  // The pattern that the locale has for a skeleton; there are no options but 0. None when the
  // locale data cannot be had. Any thread; callers take turns.
  static std::optional<Text> dateFormatFromTemplate(std::string_view skeleton, unsigned options,
                                                    const NSLocale& locale);

 private:
  NSLocale locale_ = NSLocale::autoupdatingCurrentLocale();
  std::optional<NSCalendar> calendar_;
  Text pattern_;
};

}  // namespace Platform
