#include "Shared/GApp.h"

#include <gtest/gtest.h>

namespace Gantrel_Sync_Helper {
namespace {

TEST(GApp, NamesTheApplicationsThatAUserSees) {
  const std::string base = mainAppBundleIdentifier.utf8();
  EXPECT_EQ(bundleIdentifier(GApp::main).utf8(), base);
  EXPECT_EQ(bundleIdentifier(GApp::menu).utf8(), base + ".menu");
  EXPECT_EQ(agentAppBundleIdentifier.utf8(), base + ".agent");
}

TEST(GAppDeathTest, TheAgentsIdentifierStopsTheProcessWithAReport) {
  EXPECT_EXIT(
      bundleIdentifier(GApp::agent), testing::ExitedWithCode(70),
      "^fatal error: Agent doesn't support this functionality\\. We need to re-architect XPC "
      "solution, see https://[^ ]+: file Shared/GApp, line 73\n$");
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
