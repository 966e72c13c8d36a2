#include "Platform/Foundation/NSDateFormatter.h"

#include <unicode/calendar.h>
#include <unicode/dtptngen.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>

#include <cmath>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

namespace Platform {
namespace {

// Beyond this the calendars of the locale data give one and the same day.
constexpr NSTimeInterval furthest = 1.8e14;  // seconds from 1970

icu::Locale libraryLocale(const std::string& identifier) {
  return icu::Locale::createFromName(identifier.c_str());
}

std::optional<Text> text(const icu::UnicodeString& string) {
  std::string utf8;
  string.toUTF8String(utf8);
  return Text::fromUtf8(std::move(utf8));
}

// The zone's distance from UTC at one moment is all that a rendering needs of it.
std::unique_ptr<icu::TimeZone> defaultTimeZoneAt(NSTimeInterval moment) {
  ::tzset();  // localtime_r alone need not look at the environment and the system's file again
  const auto second = static_cast<std::time_t>(std::floor(moment));
  std::tm local{};
  const long offset = ::localtime_r(&second, &local) ? local.tm_gmtoff : 0;
  return std::make_unique<icu::SimpleTimeZone>(static_cast<std::int32_t>(offset) * 1000,
                                               icu::UnicodeString("local"));
}

// The pattern generator of the locale that was last asked for. It holds locale data only, and
// building one costs many times what writing a date does.
class PatternGenerators {
 public:
  std::optional<Text> bestPattern(const std::string& identifier, std::string_view skeleton) {
    const std::lock_guard lock(mutex_);
    UErrorCode status = U_ZERO_ERROR;
    if (!generator_ || identifier != identifier_) {
      generator_.reset(
          icu::DateTimePatternGenerator::createInstance(libraryLocale(identifier), status));
      identifier_ = identifier;
    }
    if (U_FAILURE(status) || !generator_) {
      generator_.reset();
      return std::nullopt;
    }
    const icu::UnicodeString pattern = generator_->getBestPattern(
        icu::UnicodeString::fromUTF8(icu::StringPiece(skeleton)), status);
    return U_SUCCESS(status) ? text(pattern) : std::nullopt;
  }

 private:
  std::mutex mutex_;
  // Protected by mutex_:
  std::string identifier_;
  std::unique_ptr<icu::DateTimePatternGenerator> generator_;
};

}  // namespace

std::optional<Text> NSDateFormatter::stringFromDate(const NSDate& date) const {
  const NSTimeInterval moment = date.timeIntervalSince1970;
  if (!(std::abs(moment) <= furthest)) return std::nullopt;
  const std::string locale = locale_.localeIdentifier();
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(pattern_.utf8()),
                                  libraryLocale(locale), status);
  // The formatter has the calendar of its locale already, which is mostly the one that is wanted.
  const std::string calendar = calendar_ ? calendar_->localeIdentifier() : locale;
  if (calendar != locale) {
    std::unique_ptr<icu::Calendar> other(
        icu::Calendar::createInstance(libraryLocale(calendar), status));
    if (other) formatter.adoptCalendar(other.release());
  }
  if (U_FAILURE(status)) return std::nullopt;
  formatter.adoptTimeZone(defaultTimeZoneAt(moment).release());
  icu::UnicodeString string;
  formatter.format(moment * 1000, string, nullptr, status);
  return U_SUCCESS(status) ? text(string) : std::nullopt;
}

std::optional<Text> NSDateFormatter::dateFormatFromTemplate(std::string_view skeleton,
                                                            unsigned options,
                                                            const NSLocale& locale) {
  if (options != 0) return std::nullopt;
  // Never destroyed: threads may ask until the very end.
  static PatternGenerators* const generators = new PatternGenerators;
  return generators->bestPattern(locale.localeIdentifierWithClock(), skeleton);
}

}  // namespace Platform
