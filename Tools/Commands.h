// The commands of `gantrel`, each in a file of its own or with its like. Each returns the exit
// status, or ends the process with a sentence (Outcome.h).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Tools/Terminal.h"

namespace Gantrel_Sync_Helper {

// What options say; the manual explains them.
struct Options {
  std::optional<double> seconds;
  std::optional<std::string> log;
  bool asJson = false;

  // For an answer.
  Patience patience() const {
    return std::chrono::ceil<Patience>(std::chrono::duration<double>(seconds.value_or(10)));
  }
};

Status list(const Options& options);
Status find(const Options& options, const Platform::Text& identifier);
Status remove(const Options& options, const Platform::Text& identifier);

enum class Expecting { answer, nothing };
Status call(const Options& options, Expecting expecting, const Platform::Text& identifier,
            const std::string& selector, const std::vector<std::string>& arguments);

// A command is the name of a program, and its arguments.
Status serve(const Options& options, const Platform::Text& identifier,
             const std::vector<std::string>& command);
// Without a command, for standard input and output.
Status connect(const Options& options, const Platform::Text& identifier,
               const std::vector<std::string>& command);

// Without a time limit: without end.
Status wait(const Options& options, const Platform::Text& identifier);
Status monitor(const Options& options);

}  // namespace Gantrel_Sync_Helper
