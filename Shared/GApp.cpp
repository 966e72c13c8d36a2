#include "Shared/GApp.h"

#include <string>

#include "Platform/Runtime/Stop.h"
#include "Shared/Addresses.h"
#include "Shared/BundleIdentifiers.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

// Made before anything that has no priority: a program's own globals, in whatever file, may be made
// from them.
[[gnu::init_priority(101)]] const Text mainAppBundleIdentifier = GANTREL_BUNDLE_IDENTIFIER ""_text;
[[gnu::init_priority(101)]] const Text menuAppBundleIdentifier =
    GANTREL_BUNDLE_IDENTIFIER ".menu"_text;
[[gnu::init_priority(101)]] const Text agentAppBundleIdentifier =
    GANTREL_BUNDLE_IDENTIFIER ".agent"_text;

const Text& bundleIdentifier(GApp app) {
  switch (app) {
    case GApp::main:
      return mainAppBundleIdentifier;
    case GApp::menu:
      return menuAppBundleIdentifier;
    case GApp::agent:
      break;
  }
  fatalError(
      "Agent doesn't support this functionality. We need to re-architect XPC solution, see " +
          std::string(Addresses::agentIdentifierIssue),
      "Shared/GApp", 73);
}

}  // namespace Gantrel_Sync_Helper
