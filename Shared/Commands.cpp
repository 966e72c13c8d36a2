#include "Shared/Commands.h"

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Workspace/LogExcerpt.h"
#include "Platform/Workspace/Opening.h"
#include "Shared/Addresses.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

void OpenHelpCenterCommand::execute() {
  openAddress(std::string(Addresses::helpCenter));
}

void StatefulCommand::execute() {
  reach(CommandState::executing);
  reach(carryOut() ? CommandState::finished : CommandState::failed);
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
  const std::optional<std::string> file =
      writeLogExcerpt({mainAppBundleIdentifier, menuAppBundleIdentifier, agentAppBundleIdentifier},
                      std::chrono::hours(24));
  return file && openMail({std::string(Addresses::supportMail), "Gantrel logs", *file});
}

}  // namespace Gantrel_Sync_Helper
