#include "Tools/Terminal.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/StandardStreams.h"

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
std::size_t widthOf(const std::string& utf8) {
  std::size_t width = 0;
  for (const char* at = utf8.c_str(); *at; at = g_utf8_next_char(at)) {
    const gunichar letter = g_utf8_get_char(at);
    if (!g_unichar_iszerowidth(letter)) width += g_unichar_iswide(letter) ? 2 : 1;
  }
  return width;
}

}  // namespace

std::string shown(const Text& text) {
  if (text.isEmpty()) return "\\u{}";
  std::string escapes = escaped(text.utf8());
  if (escapes.starts_with('-')) escapes.replace(0, 1, "\\x2d");
  return escapes;
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
  const int error = errno;
  if (error == EPIPE) endByBrokenPipe();
  complain(std::string("standard output cannot be written: ") + std::strerror(error) + ".");
  std::_Exit(static_cast<int>(Status::unwritten));  // other threads may be at work
}

std::string padded(std::string text, std::size_t width) {
  if (isTerminal()) text.append(width - std::min(width, widthOf(text)), ' ');
  return text;
}

void print(const Row& row) {
  std::string line;
  for (const Cell& cell : row) {
    if (&cell != &row.front()) line += isTerminal() ? "  " : "\t";
    const bool isColoured = *cell.colour && hasColour();
    if (isColoured) line.append("\x1b[").append(cell.colour).append("m");
    line += cell.text;
    if (isColoured) line += "\x1b[0m";
  }
  printText(line + "\n");
}

void printTable(const Row& heading, std::vector<Row> rows) {
  constexpr std::size_t widest = 60;  // one long text should not widen all rows
  if (isTerminal()) rows.insert(rows.begin(), heading);
  for (std::size_t column = 0; column + 1 < heading.size(); ++column) {
    std::size_t width = 0;
    for (const Row& row : rows) width = std::max(width, widthOf(row[column].text));
    width = std::min(width, widest);
    for (Row& row : rows) row[column].text = padded(row[column].text, width);
  }
  for (const Row& row : rows) print(row);
}

}  // namespace Gantrel_Sync_Helper
