#include "Tools/Terminal.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/Runtime/Escaped.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// See no-color.org.
bool hasColour() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return isTerminal() && !(refused && *refused) && terminal && std::string_view(terminal) != "dumb";
}

// In columns of a terminal.
std::size_t widthOf(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size();) {
    UChar32 codePoint;
    U8_NEXT_UNSAFE(text, i, codePoint);
    constexpr auto marks = U_GC_MN_MASK | U_GC_ME_MASK | U_GC_CF_MASK;
    const int eastAsian = u_getIntPropertyValue(codePoint, UCHAR_EAST_ASIAN_WIDTH);
    if ((U_GET_GC_MASK(codePoint) & marks) != 0) continue;
    width += eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH ? 2 : 1;
  }
  return width;
}

}  // namespace

std::string shown(const Text& text) {
  return text.isEmpty() ? "\\u{}" : escaped(text.utf8());
}

Text typed(const std::string& argument, const std::string& what) {
  const auto bytes = unescaped(argument);
  if (!bytes) {
    fail(Status::badArgument, what + " holds a backslash that begins no escape: a backslash is " +
                                  "written \\\\, a byte \\x0a, a character \\u{e9}.");
  }
  auto text = Text::fromUtf8(*bytes);
  if (!text) fail(Status::badArgument, what + " is not text in UTF-8.");
  return *std::move(text);
}

void complain(const std::string& sentence) {
  std::fflush(stdout);
  std::fprintf(stderr, "gantrel: %s\n", sentence.c_str());
}

void fail(Status status, const std::string& sentence) {
  complain(sentence);
  std::exit(static_cast<int>(status));
}

bool isTerminal() {
  static const bool is = ::isatty(STDOUT_FILENO) == 1;
  return is;
}

void printText(const std::string& text) {
  const bool isTaken = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (isTaken && std::fflush(stdout) == 0) return;
  complain(std::string("standard output cannot be written: ") + std::strerror(errno) + ".");
  std::_Exit(static_cast<int>(Status::unwritten));  // other threads may be at work
}

void print(const Row& row) {
  std::string line;
  for (const Cell& cell : row) {
    if (&cell != &row.front()) line += isTerminal() ? "  " : "\t";
    const bool isColoured = *cell.colour && hasColour();
    if (isColoured) line.append("\x1b[").append(cell.colour).append("m");
    line += cell.text;
    if (isColoured) line += "\x1b[0m";
    if (!isTerminal() || &cell == &row.back()) continue;
    line.append(cell.width - std::min(cell.width, widthOf(cell.text)), ' ');
  }
  line += '\n';
  printText(line);
}

void printTable(const Row& heading, std::vector<Row> rows) {
  if (isTerminal()) rows.insert(rows.begin(), heading);
  for (std::size_t column = 0; column < heading.size(); ++column) {
    std::size_t width = 0;
    for (const Row& row : rows) width = std::max(width, widthOf(row[column].text));
    for (Row& row : rows) row[column].width = width;
  }
  for (const Row& row : rows) print(row);
}

}  // namespace Gantrel_Sync_Helper
