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
  return U_SUCCESS(status) && status != U_USING_DEFAULT_WARNING && *locale.getLanguage() != '\0';
}

std::string environmentLocaleIdentifier() {
  const std::string_view posix = environmentLocale();
  std::string identifier(posix.substr(0, posix.find_first_of(".@")));
  const std::size_t modifier = posix.find('@');
  if (modifier != posix.npos) {
    const std::size_t languageEnd = std::min(identifier.find('_'), identifier.size());
    identifier.insert(languageEnd, scriptOf(posix.substr(modifier + 1)));
  }
  const icu::Locale locale = icu::Locale::createCanonical(identifier.c_str());
  return isKnown(locale) ? locale.getName() : plainLocale;
}

}  // namespace

std::string NSLocale::localeIdentifier() const {
  return fixed_ ? *fixed_ : environmentLocaleIdentifier();
}

std::string NSLocale::localeIdentifierWithClock() const {
  if (fixed_) return *fixed_;
  std::string identifier = environmentLocaleIdentifier();
  if (const std::optional<ClockChoice> choice = desktopClockChoice()) {
    identifier += *choice == ClockChoice::twelveHours ? "@hours=h12" : "@hours=h23";
  }
  return identifier;
}

}  // namespace Platform
