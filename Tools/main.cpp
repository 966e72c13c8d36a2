// gantrel: the command line, and which command it asks for.

#include <CLI/CLI.hpp>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"

using namespace Gantrel_Sync_Helper;

namespace {

using Words = std::vector<std::string>;
constexpr double longestPatience = 1e6;  // seconds

struct Command {
  const char* name;
  const char* words;  // where there may be any number, nothing is an option from the first on
  std::size_t fewestWords;
  std::size_t mostWords;
  const char* options;
  const char* purpose;
  std::function<Status(const Options&, const Platform::Text& identifier, const Words&)> run;
};

Words behind(std::ptrdiff_t count, const Words& words) {
  return {words.begin() + count, words.end()};
}

constexpr auto any = std::numeric_limits<std::size_t>::max();
const Command commands[] = {
    {"list", "", 0, 0, "json log timeout", "list what is registered, and who serves it",
     [](auto& options, auto&, auto&) { return list(options); }},
    {"find", "ID", 1, 1, "json timeout", "show one line of that list",
     [](auto& options, auto& identifier, auto&) { return find(options, identifier); }},
    {"call", "ID SELECTOR [ARGUMENT...]", 2, any, "timeout",
     "call a method and show its answer; arguments are JSON",
     [](auto& options, auto& identifier, auto& words) {
       return call(options, Expecting::answer, identifier, words[1], behind(2, words));
     }},
    {"send", "ID SELECTOR [ARGUMENT...]", 2, any, "timeout", "send a message that has no answer",
     [](auto& options, auto& identifier, auto& words) {
       return call(options, Expecting::nothing, identifier, words[1], behind(2, words));
     }},
    {"serve", "ID COMMAND [ARGUMENT...]", 2, any, "timeout",
     "run a command for each connection, until interrupted",
     [](auto& options, auto& identifier, auto& words) {
       return serve(options, identifier, behind(1, words));
     }},
    {"connect", "ID [COMMAND [ARGUMENT...]]", 1, any, "timeout",
     "connect standard input and output, or a command's",
     [](auto& options, auto& identifier, auto& words) {
       return connect(options, identifier, behind(1, words));
     }},
    {"remove", "ID", 1, 1, "timeout", "remove an entry",
     [](auto& options, auto& identifier, auto&) { return remove(options, identifier); }},
    {"wait", "ID", 1, 1, "log timeout", "wait until somebody serves it",
     [](auto& options, auto& identifier, auto&) { return wait(options, identifier); }},
    {"monitor", "", 0, 0, "log", "show requests, launches and ends as they happen",
     [](auto& options, auto&, auto&) { return monitor(options); }},
};

// Empty when there is none.
std::string problemWithSeconds(const std::string& text) {
  const bool isPlain = text.find_first_not_of("0123456789.") == text.npos;
  const double seconds = isPlain ? realFromText(text).value_or(0) : 0;
  if (seconds > 0 && seconds <= longestPatience) return {};
  return "it takes a plain number of seconds, above 0 and at most 1000000, such as 2.5";
}

void addOptions(CLI::App& parser, const std::string& names, Options& options) {
  const auto has = [&names](const char* name) { return names.find(name) != names.npos; };
  if (has("json")) parser.add_flag("--json", options.asJson, "for programs, as JSON");
  if (has("log")) {
    parser.add_option("--log", options.log,
                      "the agent's log: a file, or a folder of journal files");
  }
  if (has("timeout")) {
    parser.add_option("--timeout", options.seconds, "how long to wait for others, in seconds")
        ->check(problemWithSeconds);
  }
}

}  // namespace

int main(int count, char** arguments) {
  Platform::openStandardStreams();
  CLI::App parser("Look at what the Gantrel agent knows, and try it: see gantrel(1).", "gantrel");
  parser.require_subcommand(1);
  parser.set_version_flag("--version", GANTREL_VERSION);
  Options options;
  Words words;
  for (const Command& command : commands) {
    auto* const own = parser.add_subcommand(command.name, command.purpose);
    own->footer(std::string("Usage: gantrel ") + command.name + " [OPTIONS] " + command.words);
    if (command.mostWords == any) own->prefix_command();
    if (command.mostWords == 1) own->add_option("ID", words, "the identifier")->expected(1);
    addOptions(*own, command.options, options);
  }
  try {
    parser.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream asked;  // for the help or the version
      parser.exit(error, asked);
      printText(asked.str());
      return 0;
    }
    fail(Status::usage, Platform::escaped(error.what()) + ": see gantrel --help.");
  }
  const CLI::App* const chosen = parser.get_subcommands().front();
  const auto* const command =
      std::find_if(std::begin(commands), std::end(commands),
                   [&](auto& one) { return one.name == chosen->get_name(); });
  if (command->mostWords == any) words = chosen->remaining();
  if (words.size() < command->fewestWords || words.size() > command->mostWords) {
    fail(Status::usage,
         "its usage is: gantrel " + chosen->get_name() + " [OPTIONS] " + command->words + ".");
  }
  const auto identifier = typed(words.empty() ? "" : words[0], "the identifier");
  return static_cast<int>(command->run(options, identifier, words));
}
