#include "Tools/Json.h"

#include <glib.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
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

constexpr double micro = 1e6;
constexpr double endOfTime = 253402300800;  // the year 10000, in seconds

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

std::optional<double> realFromText(const std::string& text) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  const bool isWhole = !text.empty() && end == text.c_str() + text.size();
  return isWhole ? std::optional(number) : std::nullopt;
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

// None for what is no value; `problem` then says why.
class Reader {
 public:
  Reader(const FindEndpoint& findEndpoint, std::string& problem)
      : findEndpoint_(findEndpoint), problem_(problem) {}

  Value value(const Json& json, int depth = 0) {
    if (json.is_structured() && depth >= Wire::deepestNesting) {
      return wrong("is nested too deeply");
    }
    if (json.is_null()) return {};
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number_unsigned()) return json.get<std::uint64_t>();
    if (json.is_number_integer()) return json.get<std::int64_t>();
    if (json.is_number()) return json.get<double>();
    if (json.is_string()) return fromString(json.get_ref<const std::string&>());
    if (json.is_array()) {
      Array array;
      for (const Json& item : json) array.push_back(value(item, depth + 1));
      return array;
    }
    Dictionary dictionary;
    for (const auto& [key, item] : json.items()) {
      const auto text = Text::fromUtf8(key);  // it is: the parser has checked
      if (text && !dictionary.emplace(*text, value(item, depth + 1)).second) {
        return wrong("has a key twice");
      }
    }
    return dictionary;
  }

  Value fromString(const std::string& string) {
    const std::string rest = string.substr(string.find(':') + 1);
    if (string.starts_with(endpointPrefix)) return findEndpoint_(rest);
    if (string.starts_with(datePrefix))
      return orWrong(dateFromText(rest), "has no date after its prefix");
    if (string.starts_with(dataPrefix))
      return orWrong(dataFromBase64(rest), "has no Base64 after its prefix");
    if (string.starts_with(realPrefix))
      return orWrong(realFromText(rest), "has no number after its prefix");
    return orWrong(Text::fromUtf8(string.starts_with(textPrefix) ? rest : string), "is no UTF-8");
  }

 private:
  template <class Found>
  Value orWrong(std::optional<Found> found, const char* problem) {
    return found ? Value(*std::move(found)) : wrong(problem);
  }

  Value wrong(const char* problem) {
    if (problem_.empty()) problem_ = problem;
    return {};
  }

  const FindEndpoint& findEndpoint_;
  std::string& problem_;
};

// Whom it leads to, since the endpoint itself cannot be shown.
std::string textFromEndpoint(const NSXPCListenerEndpoint& endpoint) {
  const Listener listener = listenersBehind({look(endpoint)}).front();
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

std::string textFromDate(NSDate date) {
  const double seconds = date.timeIntervalSince1970;
  char text[64];
  const auto number = std::to_chars(text + 1, std::end(text) - 1, seconds);
  text[0] = '@';
  *number.ptr = '\0';
  if (!(std::abs(seconds) < endOfTime)) return text;
  const double rounded = std::round(seconds * micro);
  const double whole = std::floor(rounded / micro);
  GDateTime* const second = g_date_time_new_from_unix_utc(static_cast<gint64>(whole));
  if (!second) return text;
  char* const day = g_date_time_format(second, "%Y-%m-%dT%H:%M:%S");
  std::snprintf(text, sizeof text, "%s.%06d", day, static_cast<int>(rounded - whole * micro));
  g_free(day);
  g_date_time_unref(second);
  std::string shortest = text;
  shortest.resize(shortest.find_last_not_of('0') + 1);
  if (shortest.ends_with('.')) shortest.pop_back();
  return shortest + "Z";
}

std::optional<NSDate> dateFromText(const std::string& text) {
  if (text.starts_with('@')) {
    const auto seconds = realFromText(text.substr(1));
    return seconds ? std::optional(NSDate{*seconds}) : std::nullopt;
  }
  GDateTime* const time = g_date_time_new_from_iso8601(text.c_str(), nullptr);
  if (!time) return std::nullopt;
  const NSDate date{static_cast<double>(g_date_time_to_unix(time)) +
                    g_date_time_get_microsecond(time) / micro};
  g_date_time_unref(time);
  return date;
}

std::optional<Value> valueFromJson(const std::string& argument, const FindEndpoint& findEndpoint,
                                   std::string& problem) {
  Reader reader(findEndpoint, problem);
  Value value;
  if (hasPrefix(argument)) {
    value = reader.fromString(argument);
  } else {
    try {
      value = reader.value(Json::parse(argument));
    } catch (const Json::parse_error& error) {
      problem = "is no JSON from byte " + std::to_string(error.byte) +
                " on (a text is written '\"so\"', or text:so)";
    } catch (const Json::out_of_range&) {
      problem = "holds a number beyond all reals";
    }
  }
  return problem.empty() ? std::optional(std::move(value)) : std::nullopt;
}

std::string jsonFromValue(const Value& value) {
  return written(jsonFrom(value));
}

std::string written(const Json& document) {
  const std::string plain = document.dump(2, ' ', false, Json::error_handler_t::replace);
  std::string safe;
  for (std::size_t i = 0; i < plain.size();) {
    const std::size_t start = i;
    char32_t codePoint;
    U8_NEXT_UNSAFE(plain, i, codePoint);
    // The line breaks are the document's own: those in texts are escaped already.
    if (codePoint == '\n' || !Platform::isUnsafeToShow(codePoint)) {
      safe.append(plain, start, i - start);
    } else {
      char escape[16];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(codePoint));
      safe.append(escape);
    }
  }
  return safe;
}

}  // namespace Gantrel_Sync_Helper
