#include "Shared/DateFormatting.h"

#include <string>

#include "Platform/Foundation/NSDateFormatter.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

Text stringFromDate(const NSDateFormatter& formatter, const NSDate& date) {
  return formatter.stringFromDate(date).value_or(Text());
}

// `prefix` and the time, in the user's locale, calendar and clock.
Text withTime(const Text& prefix, const NSDate& date) {
  const Text time = isAMPMFormat() ? "h:mm a"_text : "HH:mm"_text;
  NSDateFormatter formatter;
  formatter.setLocale(NSLocale::autoupdatingCurrentLocale());
  formatter.setCalendar(NSCalendar::autoupdatingCurrentCalendar());
  formatter.setDateFormat(prefix + time);
  return stringFromDate(formatter, date);
}

}  // namespace

bool isAMPMFormat() {
  const std::optional<Text> pattern =
      NSDateFormatter::dateFormatFromTemplate("j", 0, NSLocale::autoupdatingCurrentLocale());
  return pattern && pattern->utf8().find('a') != std::string::npos;
}

Text compactDayNameAndDateString(const NSDate& date) {
  NSDateFormatter formatter;
  formatter.setLocale(NSLocale::initWithLocaleIdentifier("en_US"));
  formatter.setDateFormat("EEEE  d MMMM, YYYY"_text);
  return stringFromDate(formatter, date);
}

Text compactDayNameDateAndTimeForMenuIconApp(const NSDate& date) {
  return withTime("EEE dd MMM, "_text, date);
}

Text hhmm(const NSDate& date) {
  return withTime(Text(), date);
}

Text dMMMhhmm(const NSDate& date) {
  return withTime("d MMM, "_text, date);
}

}  // namespace Gantrel_Sync_Helper
