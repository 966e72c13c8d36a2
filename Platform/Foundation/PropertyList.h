// Property lists in their XML form: what an application bundle says about itself, and small data
// files.
//
// A list comes from a file that anybody may have written, so it is read with bounds, and whatever
// is wrong with it makes it "none" as a whole: there is no half-read list.
//
//   <string>   text, exactly as written          <integer>  64 bits, signed or unsigned; 0x for hex
//   <real>     decimal, or inf and nan           <true/>  <false/>
//   <date>     2016-03-05T14:07:00Z, UTC         <data>     base64, blanks and line breaks ignored
//   <array>    values                            <dict>     a <key> before each value
//
// - One value inside one <plist>. Attributes mean nothing.
// - Of two values under one key the later counts, as in the common readers; keys are compared as
// Text.
// - A key without a value, a value without a key, an unknown element, an element or text where none
//   belongs, a number beyond its range, a day that no calendar has: none.
// - A document type is accepted, since every such file names one, but never fetched; one that
//   declares anything of its own is refused, so no entities exist beside those of XML itself.
// - UTF-8, UTF-16, ISO-8859-1 or US-ASCII, as the file says. The binary form is not read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Runtime/Value.h"

namespace Platform {

// A list that is larger or nested more deeply is none.
inline constexpr std::size_t propertyListSizeLimit = 4 << 20;  // bytes
inline constexpr std::size_t propertyListDepthLimit =
    128;  // arrays and dictionaries in one another

// Any thread.
std::optional<Value> propertyListFromData(std::string_view bytes);

// None as well when there is no such file, it cannot be read, or is not a regular file: pipes and
// devices are not waited for. Any thread.
std::optional<Value> propertyListFromFile(const std::string& path);

}  // namespace Platform
