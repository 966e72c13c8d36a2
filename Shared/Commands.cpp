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

StatefulCommand::StatefulCommand(const StatefulCommand& other)
    : carryOut_(other.carryOut_), fields_(std::make_shared<Fields>(*other.fields_)) {}

StatefulCommand& StatefulCommand::operator=(const StatefulCommand& other) {
  fields_ = std::make_shared<Fields>(*other.fields_);
  return *this;
}

bool StatefulCommand::execute() {
  // From the first callback on there may be another command here, or none.
  const std::shared_ptr<Fields> fields = fields_;
  CarryOut& carryOut = carryOut_;
  reach(*fields, CommandState::executing);
  const bool done = carryOut();
  reach(*fields, done ? CommandState::finished : CommandState::failed);
  return done;
}

void StatefulCommand::reach(Fields& fields, CommandState state) {
  fields.state = state;
  // Kept while it runs: it may replace itself.
  const StateUpdated told = fields.stateUpdated;
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
