// NSLocale: whose names, digits and habits a text follows.
//
// The user's locale is that of the environment: LC_ALL, LC_TIME or LANG, the first that is set. It
// is taken as POSIX writes it, "sr_RS.UTF-8@latin": the character set does not matter here, and of
// the modifiers those that name a script do. "C", "POSIX" and languages that the locale data does
// not know are en_US_POSIX, the locale data's name for "C". The clock that the user chose on the
// desktop (DesktopClock.h) goes over the locale's own.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace Platform {

// A value. Any thread.
class NSLocale {
 public:
  static NSLocale initWithLocaleIdentifier(std::string identifier) {
    return NSLocale(std::move(identifier));
  }
  // Stands for the locale that the user has whenever it is used, not for the one of now.
  static NSLocale autoupdatingCurrentLocale() { return NSLocale(std::nullopt); }

  // Of this moment: a Unicode locale identifier such as "en_US".
  std::string localeIdentifier() const;

  // The same, with the keyword "hours" when the user chose a clock. Only the choice of a pattern
  // depends on it, not the writing of one.
  std::string localeIdentifierWithClock() const;

 private:
  explicit NSLocale(std::optional<std::string> fixed) : fixed_(std::move(fixed)) {}

  std::optional<std::string> fixed_;
};

}  // namespace Platform
