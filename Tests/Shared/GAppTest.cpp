#include "Shared/GApp.h"

#include <gtest/gtest.h>

namespace Gantrel_Sync_Helper {
namespace {

TEST(GApp, HashesToItsOrdinalAndNamesTheApplicationsThatAUserSees) {
  const GApp apps[] = {GApp::main, GApp::menu, GApp::agent};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(std::hash<GApp>()(apps[i]), i);
    for (std::size_t j = 0; j < 3; ++j) EXPECT_EQ(apps[i] == apps[j], i == j);
  }
  const std::string base = mainAppBundleIdentifier.utf8();
  EXPECT_FALSE(base.empty());
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
