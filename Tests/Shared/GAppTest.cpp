#include "Shared/GApp.h"

#include <gtest/gtest.h>

namespace Gantrel_Sync_Helper {
namespace {

const std::string madeAtStart = agentAppBundleIdentifier.utf8();

TEST(GAppTest, IdentifiersAreThereForWhatIsMadeAtTheStartOfTheProgram) {
  EXPECT_EQ(madeAtStart, mainAppBundleIdentifier.utf8() + ".agent");
}

TEST(GAppDeathTest, TheAgentsIdentifierStopsTheProcessWithAReport) {
  EXPECT_EXIT(
      bundleIdentifier(GApp::agent), testing::ExitedWithCode(70),
      "^fatal error: Agent doesn't support this functionality\\. We need to re-architect XPC "
      "solution, see https://[^ ]+: file Shared/GApp, line 73\n$");
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
