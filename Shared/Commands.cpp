#include "Shared/Commands.h"

#include <chrono>

#include "Platform/Workspace/LogExcerpt.h"
#include "Platform/Workspace/Opening.h"
#include "Shared/Addresses.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

bool OpenHelpCenterCommand::execute() {
  return openAddress(std::string(Addresses::helpCenter));
}

bool StatefulCommand::execute() {
  reach(CommandState::executing);
  const bool done = carryOut();
  reach(done ? CommandState::finished : CommandState::failed);
  return done;
}

void StatefulCommand::reach(CommandState state) {
  state_ = state;
  // Kept while it runs: it may replace itself.
  const StateUpdated told = stateUpdated_;
  if (told && *told) (*told)(state);
}

bool FeedbackAndSupportCommand::carryOut() {
  return openAddress(std::string(Addresses::feedbackAndSupport));
}

bool SupportCommand::carryOut() {
  return openMail({std::string(Addresses::supportMail), "Gantrel support", std::nullopt});
}

bool SendLogsToSupportCommand::carryOut() {
  const std::optional<std::string> file = writeLogForSupport();
  return file && openMail({std::string(Addresses::supportMail), "Gantrel logs", *file});
}

std::optional<std::string> writeLogForSupport() {
  return writeLogExcerpt(
      {mainAppBundleIdentifier, menuAppBundleIdentifier, agentAppBundleIdentifier},
      std::chrono::hours(24));
}

}  // namespace Gantrel_Sync_Helper
