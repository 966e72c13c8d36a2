#include "Platform/Foundation/NSDateFormatter.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace Platform {
namespace {

// The words of one locale, the days and years of another's calendar.
TEST(NSDateFormatter, CountsInTheCalendarThatIsSet) {
  ::setenv("TZ", "UTC", 1);
  ::setenv("LC_ALL", "fa_IR", 1);
  NSDateFormatter formatter;
  formatter.setLocale(NSLocale::initWithLocaleIdentifier("en_US"));
  formatter.setDateFormat("d MMMM y"_text);
  EXPECT_EQ(formatter.stringFromDate({1457186820}), "5 March 2016"_text);
  formatter.setCalendar(NSCalendar::autoupdatingCurrentCalendar());
  EXPECT_EQ(formatter.stringFromDate({1457186820}), "15 Esfand 1394"_text);
}

TEST(NSDateFormatter, FindsPatternsOfFixedLocales) {
  ::setenv("LC_ALL", "en_US", 1);
  const auto pattern = [](const char* locale) {
    return NSDateFormatter::dateFormatFromTemplate("j", 0,
                                                   NSLocale::initWithLocaleIdentifier(locale));
  };
  EXPECT_EQ(pattern("en_GB"), "HH"_text);
  EXPECT_EQ(pattern("en_US@hours=h23"), "HH"_text);
}

}  // namespace
}  // namespace Platform
