// Values as JSON, as people type and read them.
//
// What JSON has no form for is a string with a prefix: "date:2026-03-05T14:07:00Z" (or
// "date:@SECONDS" since 1970), "data:BASE64", "real:nan", and "endpoint:IDENTIFIER" for what is
// registered under the identifier. A text that begins with one of these, or with "text:", has
// "text:" before it. A whole argument with a prefix needs no quotes.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "Platform/Runtime/Value.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

// None for anything after a number, or before it.
std::optional<double> realFromText(const std::string& text);

// A date as ISO 8601 in UTC, or as "@" and its seconds since 1970 where that would not give the
// same instant again. Read with any offset.
std::string textFromDate(Platform::NSDate date);
std::optional<Platform::NSDate> dateFromText(const std::string& text);

// Ends the process when `argument` is no value; `which` says in the sentence what it is.
Platform::Value valueFromJson(const std::string& argument, const std::string& which,
                              Registry& registry);

std::string jsonFromValue(const Platform::Value& value);

// Over several lines, with nothing in it that commands a terminal, and bytes that are not UTF-8
// replaced.
std::string written(const nlohmann::json& document);

}  // namespace Gantrel_Sync_Helper
