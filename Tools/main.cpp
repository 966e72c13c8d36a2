// gantrel: the command line, and which command it asks for.

#include <CLI/CLI.hpp>
#include <csignal>
#include <limits>
#include <sstream>
#include <string>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"

namespace Gantrel_Sync_Helper {
namespace {

constexpr double longestPatience = 1e6;  // seconds
constexpr auto any = std::numeric_limits<std::size_t>::max();

struct Command {
  const char* name;
  Status (*run)(const Request&);
  const char* words;
  std::size_t fewestWords;
  std::size_t mostWords;  // where there may be any number, nothing is an option from the first on
  const char* options;
  const char* purpose;
};

constexpr Command commands[] = {
    {"list", list, "", 0, 0, "json log timeout", "list what is registered, and who serves it"},
    {"find", find, "ID", 1, 1, "json timeout", "show one line of that list"},
    {"call", call, "ID SELECTOR [ARGUMENT...]", 2, any, "timeout",
     "call a method and show its answer; arguments are JSON"},
    {"send", send, "ID SELECTOR [ARGUMENT...]", 2, any, "timeout",
     "send a message that has no answer"},
    {"serve", serve, "ID COMMAND [ARGUMENT...]", 2, any, "timeout",
     "run a command for each connection, until interrupted"},
    {"connect", connect, "ID [COMMAND [ARGUMENT...]]", 1, any, "timeout",
     "connect standard input and output, or a command's"},
    {"remove", remove, "ID", 1, 1, "timeout", "remove an entry"},
    {"wait", wait, "ID", 1, 1, "log timeout", "wait until somebody serves it"},
    {"monitor", monitor, "", 0, 0, "log", "show requests, launches and ends as they happen"},
};

std::string usage(const Command& command) {
  return std::string("gantrel ") + command.name + " [OPTIONS] " + command.words;
}

// Empty when there is none.
std::string problemWithSeconds(const std::string& text) {
  const bool isPlain = text.find_first_not_of("0123456789.") == text.npos;
  const double seconds = isPlain ? realFromText(text).value_or(0) : 0;
  if (seconds > 0 && seconds <= longestPatience) return {};
  return "it takes a plain number of seconds, above 0 and at most 1000000, such as 2.5";
}

void addOptions(CLI::App& parser, const std::string& names, Request& request) {
  const auto has = [&names](const char* name) { return names.find(name) != names.npos; };
  if (has("json")) parser.add_flag("--json", request.asJson, "for programs, as JSON");
  if (has("log")) {
    parser.add_option("--log", request.log,
                      "the agent's log: a file, or a folder of journal files");
  }
  if (has("timeout")) {
    parser.add_option("--timeout", request.seconds, "how long to wait for others, in seconds")
        ->check(problemWithSeconds);
  }
}

Status run(int count, char** arguments) {
  CLI::App parser("Look at what the Gantrel agent knows, and try it: see gantrel(1).", "gantrel");
  parser.require_subcommand(1);
  parser.set_version_flag("--version", GANTREL_VERSION);
  Request request;
  auto& words = request.words;
  const Command* chosen = nullptr;
  for (const Command& command : commands) {
    auto* const own = parser.add_subcommand(command.name, command.purpose);
    own->footer("Usage: " + usage(command));
    if (command.mostWords == any) own->prefix_command();
    if (command.mostWords == 1) own->add_option("ID", words, "the identifier")->expected(1);
    addOptions(*own, command.options, request);
    own->callback([&, own] {
      chosen = &command;
      if (command.mostWords == any) words = own->remaining();
    });
  }
  try {
    parser.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream asked;  // for the help or the version
      parser.exit(error, asked);
      printText(asked.str());
      return Status::done;
    }
    const bool isUnknown = count > 1 && parser.get_subcommands().empty();
    const std::string problem =
        isUnknown ? std::string("it has no command or option ") + arguments[1] : error.what();
    fail(Status::usage, Platform::escaped(problem) + ": see gantrel --help.");
  }
  if (words.size() < chosen->fewestWords || words.size() > chosen->mostWords) {
    fail(Status::usage, "its usage is: " + usage(*chosen) + ".");
  }
  if (!words.empty() && words[0].starts_with('-')) {
    fail(Status::usage, "it has no option " + Platform::escaped(words[0]) +
                            ": an identifier that begins so is typed with \\x2d.");
  }
  if (!words.empty()) {
    request.identifier = typed(words[0], "the identifier");
    words.erase(words.begin());
  }
  return chosen->run(request);
}

}  // namespace
}  // namespace Gantrel_Sync_Helper

int main(int count, char** arguments) {
  Platform::openStandardStreams();
  std::signal(SIGCHLD, SIG_DFL);  // may be ignored by inheritance, and then no end could be seen
  return static_cast<int>(Gantrel_Sync_Helper::run(count, arguments));
}
