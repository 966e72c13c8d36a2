#include "Tools/Json.h"

#include <glib.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Platform/XPC/NSXPCListenerEndpoint.h"
#include "Platform/XPC/Wire.h"
#include "Tools/Listeners.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using Json = nlohmann::json;

namespace {

const std::string textPrefix = "text:";
const std::string datePrefix = "date:";
const std::string dataPrefix = "data:";
const std::string realPrefix = "real:";
const std::string endpointPrefix = "endpoint:";

constexpr double beyondCalendars = 1e12;  // seconds
constexpr int mostDigits = 9;             // of a second's fraction

bool hasPrefix(const std::string& string) {
  for (const auto& prefix : {textPrefix, datePrefix, dataPrefix, realPrefix, endpointPrefix}) {
    if (string.starts_with(prefix)) return true;
  }
  return false;
}

std::string base64FromData(const Data& data) {
  char* const text = g_base64_encode(reinterpret_cast<const guchar*>(data.data()), data.size());
  std::string copy = text;
  g_free(text);
  return copy;
}

std::optional<Data> dataFromBase64(const std::string& text) {
  gsize size = 0;
  guchar* const bytes = g_base64_decode(text.c_str(), &size);
  const auto* const first = reinterpret_cast<const std::byte*>(bytes);
  Data data(first, first + size);
  g_free(bytes);
  // It passes over what it does not know.
  return base64FromData(data) == text ? std::optional(std::move(data)) : std::nullopt;
}

// Ends the process for what is no value.
class Reader {
 public:
  Reader(const std::string& which, Registry& registry) : which_(which), registry_(registry) {}

  Value fromArgument(const std::string& argument) const {
    if (!Text::isUtf8(argument)) refuse("is not text in UTF-8");
    if (hasPrefix(argument)) return fromString(argument);
    std::vector<std::set<Text>> keys;  // of each object that is open
    const auto look = [&](int, Json::parse_event_t event, Json& parsed) {
      if (event == Json::parse_event_t::object_start) keys.emplace_back();
      if (event == Json::parse_event_t::object_end) keys.pop_back();
      if (event == Json::parse_event_t::key &&
          !keys.back().insert(*Text::fromUtf8(parsed.get<std::string>())).second) {
        refuse("has a key twice");
      }
      return true;
    };
    try {
      return fromJson(Json::parse(argument, look), 0);
    } catch (const Json::parse_error& error) {
      refuse("is no JSON from byte " + std::to_string(error.byte) +
             " on (a text is written '\"so\"', or text:so)");
    } catch (const Json::out_of_range&) {
      refuse("holds a number beyond all reals");
    }
  }

 private:
  Value fromJson(const Json& json, int depth) const {
    if (json.is_structured() && depth >= Wire::deepestNesting) refuse("is nested too deeply");
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number_unsigned()) return json.get<std::uint64_t>();
    if (json.is_number_integer()) return json.get<std::int64_t>();
    if (json.is_number()) return json.get<double>();
    if (json.is_string()) return fromString(json.get_ref<const std::string&>());
    if (json.is_null()) return {};
    if (json.is_array()) {
      Array array;
      for (const Json& item : json) array.push_back(fromJson(item, depth + 1));
      return array;
    }
    Dictionary dictionary;
    for (const auto& [key, item] : json.items()) {
      dictionary.emplace(*Text::fromUtf8(key), fromJson(item, depth + 1));
    }
    return dictionary;
  }

  Value fromString(const std::string& string) const {
    const std::string rest = string.substr(string.find(':') + 1);
    if (string.starts_with(endpointPrefix)) {
      return registry_.require(typed(rest, "the identifier of an endpoint"));
    }
    if (string.starts_with(datePrefix)) {
      return orRefuse(dateFromText(rest), "date after its prefix, such as 2026-03-05T14:07:00Z");
    }
    if (string.starts_with(dataPrefix)) {
      return orRefuse(dataFromBase64(rest), "Base64 after its prefix");
    }
    if (string.starts_with(realPrefix)) {
      return orRefuse(realFromText(rest), "number after its prefix");
    }
    return *Text::fromUtf8(string.starts_with(textPrefix) ? rest : string);
  }

  template <class Found>
  Value orRefuse(std::optional<Found> found, const char* what) const {
    if (!found) refuse(std::string("has no ") + what);
    return *std::move(found);
  }

  [[noreturn]] void refuse(const std::string& problem) const {
    fail(Status::badArgument, which_ + " " + problem + ".");
  }

  const std::string& which_;
  Registry& registry_;
};

// Whom it leads to, since the endpoint itself cannot be shown.
std::string textFromEndpoint(const NSXPCListenerEndpoint& endpoint) {
  const Listener listener = Listeners().behind(endpoint);
  if (listener.state == ListenerState::gone) return endpointPrefix + " gone";
  if (!listener.process) return endpointPrefix + " served";
  return endpointPrefix + " served by " + std::to_string(listener.process->number) + " " +
         listener.process->name;
}

Json jsonFrom(const Value& value) {
  if (const auto boolean = value.asBoolean()) return *boolean;
  if (const auto number = value.asUnsigned()) return *number;
  if (const auto number = value.asSigned()) return *number;
  if (const auto real = value.asReal()) {
    if (std::isfinite(*real)) return *real;
    return realPrefix + std::to_string(*real);
  }
  if (const auto* text = value.asText()) {
    return hasPrefix(text->utf8()) ? textPrefix + text->utf8() : text->utf8();
  }
  if (const auto* data = value.asData()) return dataPrefix + base64FromData(*data);
  if (const auto* date = value.asDate()) return datePrefix + textFromDate(*date);
  if (const auto* array = value.asArray()) {
    Json json = Json::array();
    for (const Value& item : *array) json.push_back(jsonFrom(item));
    return json;
  }
  if (const auto* dictionary = value.asDictionary()) {
    Json json = Json::object();
    for (const auto& [key, item] : *dictionary) json[key.utf8()] = jsonFrom(item);
    return json;
  }
  const auto endpoint = value.asObject<NSXPCListenerEndpoint>();
  return endpoint ? Json(textFromEndpoint(*endpoint)) : Json();
}

}  // namespace

std::optional<double> realFromText(const std::string& text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

std::string textFromDate(NSDate date) {
  const double seconds = date.timeIntervalSince1970;
  const double whole = std::floor(seconds);
  const auto second = static_cast<std::time_t>(std::abs(whole) < beyondCalendars ? whole : 0);
  std::tm day{};
  ::gmtime_r(&second, &day);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", day.tm_year + 1900,
                day.tm_mon + 1, day.tm_mday, day.tm_hour, day.tm_min, day.tm_sec);
  for (int digits = 0; digits <= mostDigits; ++digits) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, "%.*f", digits, seconds - whole);
    std::string candidate = std::string(text) + (fraction + 1) + "Z";
    if (fraction[0] == '0' && dateFromText(candidate) == date) return candidate;
  }
  text[0] = '@';
  const auto number = std::to_chars(text + 1, std::end(text), seconds);
  return std::string(text, number.ptr);
}

std::optional<NSDate> dateFromText(const std::string& text) {
  if (text.starts_with('@')) {
    const auto seconds = realFromText(text.substr(1));
    return seconds ? std::optional(NSDate{*seconds}) : std::nullopt;
  }
  std::tm given{};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &given);
  if (!rest) return std::nullopt;
  const std::size_t digits = *rest == '.' ? std::strspn(rest + 1, "0123456789") : 0;
  const std::string fraction(rest, digits > 0 ? digits + 1 : 0);
  std::tm zone{};
  const char* const end = ::strptime(rest + fraction.size(), "%z", &zone);
  std::tm there = given;  // no 60th second, no 30th of February
  const std::time_t second = ::timegm(&there);
  const bool isThere = there.tm_mday == given.tm_mday && there.tm_sec == given.tm_sec;
  if (end != text.c_str() + text.size() || !isThere) return std::nullopt;
  return NSDate{static_cast<double>(second - zone.tm_gmtoff) + realFromText(fraction).value_or(0)};
}

Value valueFromJson(const std::string& argument, const std::string& which, Registry& registry) {
  return Reader(which, registry).fromArgument(argument);
}

std::string jsonFromValue(const Value& value) {
  return written(jsonFrom(value));
}

std::string written(const Json& document) {
  const std::string plain = document.dump(2, ' ', false, Json::error_handler_t::replace);
  std::string safe;
  for (const char* at = plain.c_str(); *at;) {
    const std::string letter(at, static_cast<const char*>(g_utf8_next_char(at)));
    // The line breaks are the document's own: those in texts are escaped already.
    const bool isSafe = *at == '\n' || !isUnsafeToShow(g_utf8_get_char(at));
    const std::string quoted = isSafe ? "" : Json(letter).dump(-1, ' ', true);
    safe += isSafe ? letter : quoted.substr(1, quoted.size() - 2);
    at += letter.size();
  }
  return safe;
}

}  // namespace Gantrel_Sync_Helper
