#include "Shared/Commands.h"

#include <gtest/gtest.h>

#include <unordered_set>
#include <vector>

#include "Tests/Support/StandInOpeners.h"

namespace Gantrel_Sync_Helper {
namespace {

using enum CommandState;
using States = std::vector<CommandState>;
using StateUpdated = StateUpdatableCommandProtocol::StateUpdated;

StateUpdated recordingIn(States& states) {
  return std::make_shared<const std::function<void(CommandState)>>(
      [&states](CommandState state) { states.push_back(state); });
}

class Commands : public testing::Test {
 protected:
  Commands() { ::setenv("XDG_STATE_HOME", openers_.file("state").c_str(), 1); }

  TestSupport::StandInOpeners openers_;
};

TEST(CommandState, HashesToItsPosition) {
  const States all = {none, executing, failed, finished};
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(std::hash<CommandState>{}(all[i]), i);
  EXPECT_EQ(
      std::unordered_set<CommandState>({none, failed, executing, none, finished, failed}).size(),
      4u);
}

TEST_F(Commands, OpenThePagesAndTheMailOfTheProduct) {
  openers_.add("xdg-open", "");
  openers_.add("xdg-email", "");
  OpenHelpCenterCommand help;
  FeedbackAndSupportCommand feedback;
  SupportCommand support;
  const std::pair<ExecutableCommandProtocol*, const char*> cases[] = {
      {&help, "xdg-open|https://gantrel.example/help|"},
      {&feedback, "xdg-open|https://gantrel.example/feedback|"},
      {&support, "xdg-email|--utf8|--subject|Gantrel support|support@gantrel.example|"},
  };
  for (const auto& [command, opened] : cases) {
    command->execute();
    EXPECT_EQ(openers_.arguments(), opened);
  }
}

template <class Command>
void expectStates(const States& expected) {
  Command command;
  EXPECT_EQ(command.state(), none);
  EXPECT_EQ(command.stateUpdated(), nullptr);
  States states;
  StateUpdatableCommandProtocol& updatable = command;
  updatable.setStateUpdated(
      std::make_shared<const std::function<void(CommandState)>>([&](CommandState state) {
        EXPECT_EQ(updatable.state(), state) << "told once it is set";
        states.push_back(state);
      }));
  ExecutableCommandProtocol& executable = command;
  executable.execute();
  EXPECT_EQ(states, expected);
  EXPECT_EQ(updatable.state(), expected.back());
  updatable.setStateUpdated(std::make_shared<const std::function<void(CommandState)>>());
  executable.execute();
  EXPECT_EQ(updatable.state(), expected.back()) << "and again, with nobody told";
}

TEST_F(Commands, GoThroughTheirStates) {
  openers_.add("xdg-open", "");
  openers_.add("xdg-email", "");
  expectStates<FeedbackAndSupportCommand>({executing, finished});
  expectStates<SupportCommand>({executing, finished});
  openers_.add("xdg-open", "exit 3");
  openers_.add("xdg-email", "exit 3");
  expectStates<FeedbackAndSupportCommand>({executing, failed});
  expectStates<SupportCommand>({executing, failed});
}

TEST_F(Commands, FailWithoutAnOpenerAndWithoutLogs) {
  expectStates<FeedbackAndSupportCommand>({executing, failed});
  expectStates<SendLogsToSupportCommand>({executing, failed});
  EXPECT_EQ(openers_.arguments(), "");
  OpenHelpCenterCommand().execute();
}

TEST_F(Commands, CopiesShareTheCallbackAndNothingElse) {
  States states;
  SupportCommand command;
  command.setStateUpdated(recordingIn(states));
  SupportCommand copy = command;
  copy.execute();
  EXPECT_EQ(copy.state(), failed);
  EXPECT_EQ(command.state(), none);
  EXPECT_EQ(copy.stateUpdated(), command.stateUpdated());
  EXPECT_EQ(states, (States{executing, failed}));
  command = copy;
  EXPECT_EQ(command.state(), failed);
}

// The callback may let go of itself.
TEST_F(Commands, MayBeGivenAnotherCallbackByTheirCallback) {
  States states;
  SupportCommand command;
  command.setStateUpdated(std::make_shared<const std::function<void(CommandState)>>(
      [&command, next = recordingIn(states)](CommandState) { command.setStateUpdated(next); }));
  command.execute();
  EXPECT_EQ(states, States{failed});
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
