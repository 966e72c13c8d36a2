#include "Shared/DateFormatting.h"

#include <unicode/locid.h>

#include <chrono>
#include <limits>
#include <set>
#include <thread>

#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
namespace fs = std::filesystem;

// Sets the desktop's clock, none for no choice, as the desktop would: by another settings file in
// the place of the one before. Where it lies is fixed when it is first read: one for all tests.
void setClock(const char* choice) {
  static const TestSupport::PrivateRuntimeDirectory folder;
  static const fs::path path = fs::path(folder.path()) / "glib-2.0/settings/keyfile";
  ::setenv("GSETTINGS_BACKEND", "keyfile", 1);
  ::setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
  fs::create_directories(path.parent_path());
  const fs::path next = path.string() + "~";
  std::ofstream file(next);
  if (choice) file << "[org/gnome/desktop/interface]\nclock-format='" << choice << "'\n";
  file.close();
  fs::rename(next, path);
}

class DateFormatting : public testing::Test {
 protected:
  DateFormatting() {
    setClock(nullptr);
    ::setenv("TZ", "UTC", 1);
    setLocale("en_GB");
  }
  static void setLocale(const char* locale) { ::setenv("LC_ALL", locale, 1); }
};

NSDate at(int year, unsigned month, unsigned day, int hour = 12, int minute = 0) {
  using namespace std::chrono;
  const sys_days days = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
  return {static_cast<double>((days.time_since_epoch() + hours(hour) + minutes(minute)) / 1s)};
}
const NSDate afternoon = at(2016, 3, 5, 14, 7);

TEST_F(DateFormatting, FollowsTheLocale) {
  const NSDate midnight = at(2016, 3, 5, 0, 5);
  const std::tuple<const char*, NSDate, const char*, const char*, const char*> cases[] = {
      {"en_US", afternoon, "Sat 05 Mar, 2:07 PM", "5 Mar, 2:07 PM", "2:07 PM"},
      {"en_US", midnight, "Sat 05 Mar, 12:05 AM", "5 Mar, 12:05 AM", "12:05 AM"},
      {"en_GB", midnight, "Sat 05 Mar, 00:05", "5 Mar, 00:05", "00:05"},
      {"ar_EG", afternoon, "السبت ٠٥ مارس, ٢:٠٧ م", "٥ مارس, ٢:٠٧ م", "٢:٠٧ م"},
      {"fa_IR", afternoon, "شنبه ۱۵ اسفند, ۱۴:۰۷", "۱۵ اسفند, ۱۴:۰۷", "۱۴:۰۷"},
      {"fr_CM", afternoon, "sam. 05 mars, 14:07", "5 mars, 14:07", "14:07"},
      {"sr_RS.UTF-8@latin", afternoon, "sub 05 mar, 14:07", "5 mar, 14:07", "14:07"},
      {"C.UTF-8", afternoon, "Sat 05 Mar, 2:07 PM", "5 Mar, 2:07 PM", "2:07 PM"},
      {"xx_YY.UTF-8", afternoon, "Sat 05 Mar, 2:07 PM", "5 Mar, 2:07 PM", "2:07 PM"},
  };
  for (const auto& [locale, date, menu, dayMonth, time] : cases) {
    setLocale(locale);
    EXPECT_EQ(compactDayNameDateAndTimeForMenuIconApp(date).utf8(), menu) << locale;
    EXPECT_EQ(dMMMhhmm(date).utf8(), dayMonth) << locale;
    EXPECT_EQ(hhmm(date).utf8(), time) << locale;
    EXPECT_EQ(compactDayNameAndDateString(at(2016, 3, 5)).utf8(), "Saturday  5 March, 2016");
  }
}

TEST_F(DateFormatting, WritesTheYearOfTheWeekAsFarAsTheCalendarReaches) {
  const std::pair<NSTimeInterval, const char*> cases[] = {
      {1451088000, "Saturday  26 December, 2015"},
      {1451174400, "Sunday  27 December, 2016"},  // the week's year is that of its Saturday
      {1483228800, "Sunday  1 January, 2017"},
      {-0.25, "Wednesday  31 December, 1970"},
      {-12219292801, "Thursday  4 October, 1582"},  // the last day of the calendar before
      {-62198755200.0 - 86400 * 900, "Monday  17 July, -0004"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(compactDayNameAndDateString({seconds}).utf8(), text);
  }
  for (const double beyond : {std::numeric_limits<double>::quiet_NaN(), -1e300}) {
    EXPECT_TRUE(compactDayNameAndDateString({beyond}).isEmpty()) << beyond;
  }
}

TEST_F(DateFormatting, IsInTheTimeZoneOfTheMoment) {
  const std::tuple<const char*, NSDate, const char*> cases[] = {
      {"Europe/Berlin", at(2016, 3, 27, 0, 59), "27 Mar, 01:59"},
      {"Europe/Berlin", at(2016, 3, 27, 1, 0), "27 Mar, 03:00"},
      {":Asia/Kathmandu", at(2016, 3, 5, 18, 30), "6 Mar, 00:15"},
      {"No/Such", at(2016, 3, 5), "5 Mar, 12:00"},
  };
  for (const auto& [zone, date, text] : cases) {
    ::setenv("TZ", zone, 1);
    EXPECT_EQ(dMMMhhmm(date).utf8(), text) << zone;
  }
}

// Without descriptions of settings, a bus, or a place for them.
TEST_F(DateFormatting, FollowsTheLocaleSilentlyWithoutADesktop) {
  const std::vector<std::string> surroundings[] = {
      {"XDG_DATA_DIRS=/nowhere"},
      {"GSETTINGS_BACKEND=dconf", "DBUS_SESSION_BUS_ADDRESS=unix:path=/nowhere"},
      {"HOME=/proc/nowhere", "XDG_CONFIG_HOME=", "XDG_CACHE_HOME=", "XDG_RUNTIME_DIR="}};
  ::setenv("GSETTINGS_BACKEND", "", 1);
  for (const auto& variables : surroundings) {
    SCOPED_TRACE(variables.front());
    TestSupport::ChildProcess application({GANTREL_BUILD_DIR "/Tests/test_display"}, variables);
    application.writeLine("time");
    EXPECT_EQ(application.readLine(), "14:07");
    application.closeInput();
    EXPECT_EQ(application.readAllErrors(), "");
  }
}

TEST_F(DateFormatting, FollowsTheClockThatTheUserChoseInEveryLocale) {
  std::int32_t count = 0;
  const icu::Locale* const locales = icu::Locale::getAvailableLocales(count);
  std::set<std::string> withoutMarker;
  for (const auto& [clock, time] : {std::pair("12h", "2:07 pm"), {"24h", "14:07"}}) {
    setClock(clock);
    setLocale("en_GB");
    EXPECT_EQ(hhmm(afternoon).utf8(), time);
    for (std::int32_t i = 0; i < count; ++i) {
      const char* const name = locales[i].getName();
      setLocale(name);
      if (isAMPMFormat() != (*clock == '1')) withoutMarker.insert(name);
      EXPECT_FALSE(compactDayNameDateAndTimeForMenuIconApp(afternoon).isEmpty()) << name;
    }
  }
  EXPECT_EQ(withoutMarker, std::set<std::string>{"fr_CM"}) << "its 12-hour pattern is only \"h\"";
}

TEST_F(DateFormatting, IsRightOnManyThreadsWhileTheClockChanges) {
  const std::jthread desktop([](const std::stop_token& stop) {
    for (bool even = true; !stop.stop_requested(); even = !even) setClock(even ? "24h" : "12h");
  });
  std::vector<std::future<void>> threads;
  for (int i = 0; i < 8; ++i) {
    threads.push_back(std::async(std::launch::async, [] {
      for (int call = 0; call < 100; ++call) {
        const Text time = hhmm(afternoon);
        EXPECT_TRUE(time == "2:07 pm"_text || time == "14:07"_text) << time.utf8();
      }
    }));
  }
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
