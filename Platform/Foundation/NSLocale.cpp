#include "Platform/Foundation/NSLocale.h"

#include <unicode/locid.h>
#include <unicode/ures.h>

#include <cstdlib>
#include <string_view>

#include "Platform/Foundation/DesktopClock.h"

namespace Platform {
namespace {

// The locale that stands for "no locale in particular".
constexpr char plainLocale[] = "en_US_POSIX";

std::string_view environmentLocale() {
  for (const char* const variable : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* const value = std::getenv(variable);
    if (value && *value) return value;
  }
  return "C";
}

// The script that a POSIX modifier asks for; empty when it is about something else.
std::string_view scriptOf(std::string_view modifier) {
  constexpr std::pair<std::string_view, std::string_view> scripts[] = {
      {"latin", "_Latn"}, {"cyrillic", "_Cyrl"}, {"devanagari", "_Deva"}, {"arabic", "_Arab"}};
  for (const auto& [name, script] : scripts) {
    if (modifier == name) return script;
  }
  return {};
}

// Whether there is data for the locale's language. Without, the library would silently take the
// locale that the environment named when it was first used.
bool isKnown(const icu::Locale& locale) {
  UErrorCode status = U_ZERO_ERROR;
  ures_close(ures_open(nullptr, locale.getBaseName(), &status));
  return U_SUCCESS(status) && status != U_USING_DEFAULT_WARNING;
}

// What is left of a locale without data for its language: the root of all data, with the habits of
// the region, the likely one where none is named.
std::string rootIdentifier(icu::Locale locale) {
  UErrorCode status = U_ZERO_ERROR;
  locale.addLikelySubtags(status);
  const std::string region = locale.getCountry();
  // "ZZ" stands for an unknown region; the subdivision "ZZZZ" for the region as a whole.
  return "root@rg=" + (region.size() == 2 ? region : "ZZ") + "ZZZZ";
}

std::string environmentLocaleIdentifier() {
  const std::string_view posix = environmentLocale();
  const std::string base(posix.substr(0, posix.find_first_of(".@")));
  if (base.empty() || base == "C" || base == "POSIX") return plainLocale;
  const std::size_t modifier = posix.find('@');
  if (modifier != posix.npos) {
    std::string withScript = base;
    withScript.insert(std::min(base.find('_'), base.size()), scriptOf(posix.substr(modifier + 1)));
    const icu::Locale locale = icu::Locale::createCanonical(withScript.c_str());
    if (isKnown(locale)) return locale.getName();
  }
  const icu::Locale locale = icu::Locale::createCanonical(base.c_str());
  return isKnown(locale) ? locale.getName() : rootIdentifier(locale);
}

}  // namespace

std::string NSLocale::localeIdentifier() const {
  return fixed_ ? *fixed_ : environmentLocaleIdentifier();
}

std::string NSLocale::localeIdentifierWithClock() const {
  if (fixed_) return *fixed_;
  std::string identifier = environmentLocaleIdentifier();
  if (const std::optional<ClockChoice> choice = desktopClockChoice()) {
    identifier += identifier.find('@') == std::string::npos ? "@hours=" : ";hours=";
    identifier += *choice == ClockChoice::twelveHours ? "h12" : "h23";
  }
  return identifier;
}

}  // namespace Platform
