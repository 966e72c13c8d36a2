// What a person or a script sees of a command: how it ends, with one sentence and a status where it
// fails, and what it prints.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

// The exit statuses; the manual explains them.
enum class Status : int {
  done = 0,
  notRegistered = 1,
  gone = 2,     // registered, but nobody listens there any more
  noAgent = 3,  // the agent cannot be reached
  refused = 4,  // by the peer
  ended = 5,    // the conversation, before it was over, or it was not to be understood
  notInTime = 6,
  noLog = 7,  // of the agent
  usage = 64,
  badArgument = 65,  // no UTF-8, no JSON, or more than the wire takes
  unread = 66,       // standard input
  unwritten = 74,    // standard output is full or closed
  cannotRun = 126,   // a command, though it is there
  notFound = 127,    // a command to be run
};

// How long to wait for others.
using Patience = std::chrono::milliseconds;

// The text as people are shown it and may type it: escaped, the empty one as \u{}, and one that
// could be taken for an option as \x2d and the rest.
std::string shown(const Platform::Text& text);

// The text that somebody typed, in which a backslash begins an escape. Ends the process when it is
// none; `what` says in the sentence what it is.
Platform::Text typed(const std::string& argument, const std::string& what);

// Writes a sentence to standard error, after the program's name. Texts in it are `shown`, and
// everything else from outside is escaped.
void complain(const std::string& sentence);

// The same, and ends the process. On the main thread only.
[[noreturn]] void fail(Status status, const std::string& sentence);

// What is printed is aligned, and has colour, in a terminal. In a pipe it has tabs and nothing
// else, and stays the same for the programs that read it.
struct Cell {
  std::string text;         // escaped
  const char* colour = "";  // what a terminal knows it by
};
using Row = std::vector<Cell>;
inline constexpr const char* faint = "2";
inline constexpr const char* red = "31";
inline constexpr const char* green = "32";
inline constexpr const char* yellow = "33";

bool isTerminal();  // standard output

// With blanks behind it, in a terminal.
std::string padded(std::string text, std::size_t width);

// Output that cannot be written ends the process, with a sentence. Any thread.
void printText(const std::string& text);
void print(const Row& row);
// The heading is for a terminal only.
void printTable(const Row& heading, std::vector<Row> rows);

}  // namespace Gantrel_Sync_Helper
