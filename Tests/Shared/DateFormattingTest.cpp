#include "Shared/DateFormatting.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unicode/dtptngen.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <thread>

#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
namespace fs = std::filesystem;

// The desktop's settings, kept in a file, which tests write as the desktop would: another file in
// the place of the one before.
class SettingsFile {
 public:
  SettingsFile() {
    ::setenv("GSETTINGS_BACKEND", "keyfile", 1);
    ::setenv("XDG_CONFIG_HOME", folder_.path().c_str(), 1);
    fs::create_directories(path_.parent_path());
  }

  void setClock(const char* choice) {
    if (!choice) {
      fs::remove(path_);
      return;
    }
    const fs::path next = path_.string() + "~";
    std::ofstream(next) << "[org/gnome/desktop/interface]\nclock-format='" << choice << "'\n";
    fs::rename(next, path_);
  }

 private:
  TestSupport::PrivateRuntimeDirectory folder_;
  const fs::path path_ = fs::path(folder_.path()) / "glib-2.0/settings/keyfile";
};

// Where settings are kept is fixed when they are first read: one file for all tests.
void setClock(const char* choice) {
  static SettingsFile file;
  file.setClock(choice);
}

void setLocale(const char* locale) {
  ::setenv("LC_ALL", locale, 1);
}

class DateFormatting : public testing::Test {
 protected:
  DateFormatting() {
    setClock(nullptr);
    ::setenv("TZ", "UTC", 1);
  }
};

NSDate at(int year, unsigned month, unsigned day, int hour = 12, int minute = 0) {
  using namespace std::chrono;
  const sys_days days = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
  return {static_cast<double>((days.time_since_epoch() + hours(hour) + minutes(minute)) / 1s)};
}
const NSDate afternoon = at(2016, 3, 5, 14, 7);

TEST_F(DateFormatting, FollowsTheLocale) {
  struct Case {
    const char* locale;
    NSDate date;
    const char* menu;
    const char* dayMonth;
    const char* time;
  };
  const NSDate morning = at(2016, 3, 5, 9, 5);
  const NSDate midnight = at(2016, 3, 5, 0, 5);
  const NSDate noon = at(2016, 3, 15, 12, 0);
  const Case cases[] = {
      {"en_US", afternoon, "Sat 05 Mar, 2:07 PM", "5 Mar, 2:07 PM", "2:07 PM"},
      {"en_US", morning, "Sat 05 Mar, 9:05 AM", "5 Mar, 9:05 AM", "9:05 AM"},
      {"en_US", midnight, "Sat 05 Mar, 12:05 AM", "5 Mar, 12:05 AM", "12:05 AM"},
      {"en_US", noon, "Tue 15 Mar, 12:00 PM", "15 Mar, 12:00 PM", "12:00 PM"},
      {"en_GB", afternoon, "Sat 05 Mar, 14:07", "5 Mar, 14:07", "14:07"},
      {"en_GB", morning, "Sat 05 Mar, 09:05", "5 Mar, 09:05", "09:05"},
      {"en_GB", midnight, "Sat 05 Mar, 00:05", "5 Mar, 00:05", "00:05"},
      {"en_GB", noon, "Tue 15 Mar, 12:00", "15 Mar, 12:00", "12:00"},
      {"ar_EG", afternoon, "السبت ٠٥ مارس, ٢:٠٧ م", "٥ مارس, ٢:٠٧ م", "٢:٠٧ م"},
      {"th_TH", afternoon, "ส. 05 มี.ค., 14:07", "5 มี.ค., 14:07", "14:07"},
      {"fa_IR", afternoon, "شنبه ۱۵ اسفند, ۱۴:۰۷", "۱۵ اسفند, ۱۴:۰۷", "۱۴:۰۷"},
      {"zh_TW", afternoon, "週六 05 3月, 2:07 下午", "5 3月, 2:07 下午", "2:07 下午"},
      {"fr_CM", afternoon, "sam. 05 mars, 14:07", "5 mars, 14:07", "14:07"},
      // As POSIX writes them.
      {"de_DE.ISO-8859-15@euro", afternoon, "Sa. 05 März, 14:07", "5 März, 14:07", "14:07"},
      {"sr_RS.UTF-8@latin", afternoon, "sub 05 mar, 14:07", "5 mar, 14:07", "14:07"},
      {"sr_RS", afternoon, "суб 05 мар, 14:07", "5 мар, 14:07", "14:07"},
  };
  for (const Case& c : cases) {
    setLocale(c.locale);
    EXPECT_EQ(compactDayNameDateAndTimeForMenuIconApp(c.date).utf8(), c.menu) << c.locale;
    EXPECT_EQ(dMMMhhmm(c.date).utf8(), c.dayMonth) << c.locale;
    EXPECT_EQ(hhmm(c.date).utf8(), c.time) << c.locale;
    EXPECT_EQ(compactDayNameAndDateString(at(2016, 3, 5)).utf8(), "Saturday  5 March, 2016");
  }
  for (const char* const unknown : {"C", "C.UTF-8", "POSIX", "xx_YY.UTF-8", "../../etc/passwd"}) {
    setLocale(unknown);
    EXPECT_EQ(dMMMhhmm(afternoon).utf8(), "5 Mar, 2:07 PM") << unknown;
  }
}

TEST_F(DateFormatting, TakesTheFirstVariableThatIsSet) {
  ::unsetenv("LC_ALL");
  ::setenv("LC_TIME", "en_GB.UTF-8", 1);
  ::setenv("LANG", "en_US.UTF-8", 1);
  EXPECT_FALSE(isAMPMFormat());
  ::setenv("LC_TIME", "", 1);
  EXPECT_TRUE(isAMPMFormat());
  ::setenv("LC_ALL", "de_DE", 1);
  EXPECT_FALSE(isAMPMFormat());
}

// The week's year is that of its Saturday.
TEST_F(DateFormatting, WritesTheYearOfTheWeek) {
  using namespace std::chrono;
  for (int year = 1901; year <= 2300; ++year) {
    for (int day = -7; day < 3; ++day) {
      const sys_days date = sys_days(std::chrono::year(year) / January / 1) + days(day);
      const sys_days saturday = date + (Saturday - weekday(date));
      const int weekYear = static_cast<int>(year_month_day(saturday).year());
      const std::string text =
          compactDayNameAndDateString({static_cast<double>(date.time_since_epoch() / 1s)}).utf8();
      ASSERT_EQ(text.substr(text.size() - 6), ", " + std::to_string(weekYear)) << text;
    }
  }
  EXPECT_EQ(compactDayNameAndDateString(at(2015, 12, 31)).utf8(), "Thursday  31 December, 2016");
}

TEST_F(DateFormatting, ReachesFarAndNoFurther) {
  const std::pair<NSTimeInterval, const char*> cases[] = {
      {-0.25, "Wednesday  31 December, 1970"},  // in the last week of 1969, which is 1970's first
      {-86400 * 4 - 1, "Saturday  27 December, 1969"},
      {4133894400, "Friday  31 December, 2101"},
      {32503680000, "Wednesday  1 January, 3000"},
      {-12219292800, "Friday  15 October, 1582"},   // the first day of the calendar of today
      {-12219292801, "Thursday  4 October, 1582"},  // the last of the one before
      {-62135596800, "Monday  3 January, 0001"},
      {-62167219200, "Saturday  3 January, 0000"},  // 1 BC
      {-62198755200.0 - 86400 * 900, "Monday  17 July, -0004"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(compactDayNameAndDateString({seconds}).utf8(), text);
  }
  using Limits = std::numeric_limits<double>;
  for (const double beyond :
       {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), 1e300}) {
    EXPECT_TRUE(compactDayNameAndDateString({beyond}).isEmpty()) << beyond;
  }
  for (const char* const locale : {"en_US", "th_TH", "fa_IR", "ar_SA", "ja_JP", "he_IL"}) {
    setLocale(locale);
    for (const double far : {1.8e14, -1.8e14}) EXPECT_FALSE(hhmm({far}).isEmpty()) << locale;
  }
}

TEST_F(DateFormatting, IsInTheTimeZoneOfTheMoment) {
  struct Case {
    const char* zone;
    NSDate date;
    const char* text;
  };
  const Case cases[] = {
      {"Europe/Berlin", at(2016, 3, 27, 0, 59), "27 Mar, 01:59"},
      {"Europe/Berlin", at(2016, 3, 27, 1, 0), "27 Mar, 03:00"},
      {"Europe/Berlin", at(2016, 10, 30, 0, 59), "30 Oct, 02:59"},
      {"Europe/Berlin", at(2016, 10, 30, 1, 0), "30 Oct, 02:00"},
      {"Europe/Berlin", at(2090, 7, 1), "1 Jul, 14:00"},
      {":Asia/Kathmandu", at(2016, 3, 5, 18, 30), "6 Mar, 00:15"},
      {"America/St_Johns", at(1969, 7, 1, 0, 0), "30 Jun, 21:30"},
      {"EST5EDT,M3.2.0,M11.1.0", at(2016, 3, 13, 7, 0), "13 Mar, 03:00"},
      {"", at(2016, 3, 5), "5 Mar, 12:00"},
      {"No/Such", at(2016, 3, 5), "5 Mar, 12:00"},
  };
  setLocale("en_GB");
  for (const Case& c : cases) {
    ::setenv("TZ", c.zone, 1);
    EXPECT_EQ(dMMMhhmm(c.date).utf8(), c.text) << c.zone;
  }
}

TEST_F(DateFormatting, EachTextFollowsTheClockThatTheUserChose) {
  setLocale("en_GB");
  setClock("12h");
  EXPECT_TRUE(isAMPMFormat());
  EXPECT_EQ(hhmm(afternoon).utf8(), "2:07 pm");
  EXPECT_EQ(dMMMhhmm(afternoon).utf8(), "5 Mar, 2:07 pm");
  setClock(nullptr);
  EXPECT_EQ(hhmm(afternoon).utf8(), "14:07");
  setLocale("en_US");
  EXPECT_EQ(hhmm(afternoon).utf8(), "2:07 PM");
  setClock("24h");
  EXPECT_EQ(compactDayNameDateAndTimeForMenuIconApp(afternoon).utf8(), "Sat 05 Mar, 14:07");
}

TEST_F(DateFormatting, WritesEveryLocaleOnEveryClock) {
  std::int32_t count = 0;
  const icu::Locale* const locales = icu::Locale::getAvailableLocales(count);
  std::set<std::string> withoutMarker;
  for (std::int32_t i = 0; i < count; ++i) {
    const char* const name = locales[i].getName();
    setLocale(name);
    setClock(nullptr);
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::DateTimePatternGenerator> generator(
        icu::DateTimePatternGenerator::createInstance(locales[i], status));
    const bool marker = generator->getBestPattern("j", status).indexOf(u'a') >= 0;
    EXPECT_EQ(isAMPMFormat(), marker) << name;
    for (const char* const clock : {"12h", "24h"}) {
      setClock(clock);
      if (isAMPMFormat() != (clock == std::string("12h"))) withoutMarker.insert(name);
      EXPECT_FALSE(hhmm(afternoon).isEmpty()) << name;
      EXPECT_FALSE(dMMMhhmm(afternoon).isEmpty()) << name;
      EXPECT_FALSE(compactDayNameDateAndTimeForMenuIconApp(afternoon).isEmpty()) << name;
    }
  }
  EXPECT_GT(count, 500);
  EXPECT_EQ(withoutMarker, std::set<std::string>{"fr_CM"}) << "its 12-hour pattern is only \"h\"";
}

TEST_F(DateFormatting, IsRightOnManyThreadsWhileTheClockChanges) {
  setLocale("en_US");
  std::atomic<bool> wrong = false;
  std::atomic<int> running = 8;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < 100; ++call) {
        const Text menu = compactDayNameDateAndTimeForMenuIconApp(afternoon);
        const Text time = hhmm(afternoon);
        if (menu != "Sat 05 Mar, 2:07 PM"_text && menu != "Sat 05 Mar, 14:07"_text) wrong = true;
        if (time != "2:07 PM"_text && time != "14:07"_text) wrong = true;
      }
      --running;
    });
  }
  while (running > 0) {
    setClock("24h");
    setClock("12h");
  }
  EXPECT_FALSE(wrong);
}

// What one process of the user sets, another sees, however the settings are kept.
class DesktopSettings : public testing::Test {
 protected:
  DesktopSettings() {
    ::setenv("XDG_CONFIG_HOME", (folder_.path() + "/config").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (folder_.path() + "/cache").c_str(), 1);
    ::setenv("TZ", "UTC", 1);
    ::setenv("LC_ALL", "en_GB", 1);
  }

  static void expectTimes(TestSupport::ChildProcess& application, const std::string& text) {
    application.writeLine("time");
    EXPECT_EQ(application.readLine(), text);
  }

  TestSupport::PrivateRuntimeDirectory folder_;
  const std::string display_ = GANTREL_BUILD_DIR "/Tests/test_display";
};

TEST_F(DesktopSettings, AreReadAsAnotherProcessHasSetThem) {
  for (const std::string backend : {"dconf", "keyfile"}) {
    TestSupport::ChildProcess session({"dbus-run-session", "--", "sh", "-c",
                                       R"(export GSETTINGS_BACKEND=$0
            while read -r choice; do
              gsettings set org.gnome.desktop.interface clock-format "$choice" && echo done
            done)",
                                       backend});
    TestSupport::ChildProcess application({"env", "GSETTINGS_BACKEND=" + backend, display_});
    expectTimes(application, "14:07");
    for (const char* const choice : {"12h", "24h", "12h"}) {
      session.writeLine(choice);
      ASSERT_EQ(session.readLine(), "done") << session.readAllErrors();
      expectTimes(application, choice == std::string("12h") ? "2:07 pm" : "14:07");
    }
    session.closeInput();
    EXPECT_EQ(session.wait(), 0);
  }
}

TEST_F(DesktopSettings, ThatAreMissingAreSilentlyDoneWithout) {
  const std::vector<std::string> surroundings[] = {
      {"XDG_DATA_DIRS=/nowhere"},  // no description of any settings
      {"GSETTINGS_BACKEND=dconf", "DBUS_SESSION_BUS_ADDRESS=unix:path=/nowhere"},
      {"GSETTINGS_BACKEND=dconf", "XDG_RUNTIME_DIR=/proc/nowhere"},
      {"GSETTINGS_BACKEND=keyfile", "XDG_CONFIG_HOME=/proc/nowhere"},
      {"GSETTINGS_BACKEND=nonesuch"},
      {"GIO_MODULE_DIR=/nowhere"},
      {"HOME=/proc/nowhere", "XDG_CONFIG_HOME=", "XDG_CACHE_HOME=", "XDG_RUNTIME_DIR="},
  };
  for (std::vector<std::string> variables : surroundings) {
    const std::string what = variables[0] + " " + variables.back();
    if (!variables[0].starts_with("GSETTINGS")) variables.push_back("GSETTINGS_BACKEND=");
    variables.insert(variables.begin(), "env");
    variables.push_back(display_);
    TestSupport::ChildProcess application(variables);
    expectTimes(application, "14:07");
    expectTimes(application, "14:07");
    application.closeInput();
    EXPECT_EQ(application.readAllErrors(), "") << what;
    EXPECT_EQ(application.wait(), 0) << what;
  }
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
