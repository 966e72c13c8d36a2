#include "Shared/Commands.h"

#include <gtest/gtest.h>

#include <vector>

#include "Tests/Support/StandInOpeners.h"

namespace Gantrel_Sync_Helper {
namespace {

using enum CommandState;
using States = std::vector<CommandState>;

template <class Command>
void expectStates(const States& expected) {
  Command command;
  EXPECT_EQ(command.state(), none);
  States states;
  StateUpdatableCommandProtocol& updatable = command;
  const std::function<void(CommandState)> told = [&](CommandState state) {
    EXPECT_EQ(updatable.state(), state) << "told once it is set";
    states.push_back(state);
  };
  updatable.setStateUpdated(std::make_shared<decltype(told)>(told));
  ExecutableCommandProtocol& executable = command;
  EXPECT_EQ(executable.execute(), expected.back() == finished);
  EXPECT_EQ(states, expected);
}

TEST(Commands, OpenWhatTheyNameAndGoThroughTheirStates) {
  TestSupport::StandInOpeners openers;
  ::setenv("XDG_STATE_HOME", openers.file("state").c_str(), 1);
  expectStates<FeedbackAndSupportCommand>({executing, failed});
  expectStates<SendLogsToSupportCommand>({executing, failed});
  EXPECT_FALSE(OpenHelpCenterCommand().execute());
  EXPECT_EQ(openers.arguments(), "") << "there is no opener";
  openers.add("xdg-open", "");
  openers.add("xdg-email", "");
  EXPECT_TRUE(OpenHelpCenterCommand().execute());
  EXPECT_EQ(openers.arguments(), "xdg-open|https://gantrel.example/help|");
  expectStates<FeedbackAndSupportCommand>({executing, finished});
  EXPECT_EQ(openers.arguments(), "xdg-open|https://gantrel.example/feedback|");
  expectStates<SupportCommand>({executing, finished});
  EXPECT_EQ(openers.arguments(),
            "xdg-email|--utf8|--subject|Gantrel support|support@gantrel.example|");
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
