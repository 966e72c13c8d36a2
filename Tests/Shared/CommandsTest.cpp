#include "Shared/Commands.h"

#include <gtest/gtest.h>

#include <vector>

#include "Tests/Support/StandInOpeners.h"

namespace Gantrel_Sync_Helper {
namespace {

using enum CommandState;
using States = std::vector<CommandState>;

class Commands : public testing::Test {
 protected:
  Commands() { ::setenv("XDG_STATE_HOME", openers_.file("state").c_str(), 1); }

  TestSupport::StandInOpeners openers_;
};

template <class Command>
void expectStates(const States& expected) {
  Command command;
  EXPECT_EQ(command.state(), none);
  EXPECT_EQ(command.stateUpdated(), nullptr);
  States states;
  StateUpdatableCommandProtocol& updatable = command;
  const std::function<void(CommandState)> told = [&](CommandState state) {
    EXPECT_EQ(updatable.state(), state) << "told once it is set";
    states.push_back(state);
  };
  updatable.setStateUpdated(std::make_shared<decltype(told)>(told));
  ExecutableCommandProtocol& executable = command;
  executable.execute();
  EXPECT_EQ(states, expected);
  EXPECT_EQ(updatable.state(), expected.back());
}

TEST_F(Commands, OpenWhatTheyNameAndGoThroughTheirStates) {
  expectStates<FeedbackAndSupportCommand>({executing, failed});
  expectStates<SendLogsToSupportCommand>({executing, failed});
  EXPECT_EQ(openers_.arguments(), "") << "there is no opener";
  openers_.add("xdg-open", "");
  openers_.add("xdg-email", "");
  OpenHelpCenterCommand().execute();
  EXPECT_EQ(openers_.arguments(), "xdg-open|https://gantrel.example/help|");
  expectStates<FeedbackAndSupportCommand>({executing, finished});
  EXPECT_EQ(openers_.arguments(), "xdg-open|https://gantrel.example/feedback|");
  expectStates<SupportCommand>({executing, finished});
  EXPECT_EQ(openers_.arguments(),
            "xdg-email|--utf8|--subject|Gantrel support|support@gantrel.example|");
  openers_.add("xdg-email", "exit 3");
  expectStates<SupportCommand>({executing, failed});
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
