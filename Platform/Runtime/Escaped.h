// Making text safe to show. Text that came from outside may hold anything: line breaks that forge
// log lines, sequences that command a terminal, marks that turn the reading direction around, and
// such as nobody sees, by which one text passes for another. Joiners and variation selectors, which
// scripts and emoji need, pass.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Platform {

// `utf8` with every control, line-separating, direction-changing and invisible character written as
// \xNN or \u{NNNN}, and the backslash doubled so that nothing else can look like an escape. Bytes
// that are not UTF-8 are written as \xNN.
std::string escaped(std::string_view utf8);
void appendEscaped(std::string& out, std::string_view utf8);

// What `escaped` was made from; \u{} stands for nothing. None when a backslash begins no escape.
std::optional<std::string> unescaped(std::string_view text);

// Whether `escaped` writes the code point in another way, the backslash aside.
bool isUnsafeToShow(char32_t codePoint);

}  // namespace Platform
