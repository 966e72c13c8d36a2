// The commands of `gantrel`, each in a file of its own or with its like. Each returns the exit
// status, or ends the process with a sentence (Terminal.h).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"
#include "Tools/Terminal.h"

namespace Gantrel_Sync_Helper {

// What the command line asks for; the manual explains it.
struct Request {
  Platform::Text identifier;       // empty where the command takes none
  std::vector<std::string> words;  // those behind the identifier
  std::optional<double> seconds;
  std::optional<std::string> log;
  bool asJson = false;

  // For an answer.
  Patience patience() const {
    return std::chrono::ceil<Patience>(std::chrono::duration<double>(seconds.value_or(10)));
  }
};

Status list(const Request& request);
Status find(const Request& request);
Status call(const Request& request);
Status send(const Request& request);
Status serve(const Request& request);
Status connect(const Request& request);
Status remove(const Request& request);
Status wait(const Request& request);
Status monitor(const Request& request);

}  // namespace Gantrel_Sync_Helper
