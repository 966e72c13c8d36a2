#include "Shared/GApp.h"

#include <memory>
#include <string>

#include "Platform/Runtime/Stop.h"
#include "Shared/Addresses.h"
#include "Shared/BundleIdentifiers.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// Made before anything that has no priority: a program's own globals, in whatever file, may be made
// from them. Never destroyed: handlers still run on threads of the layer while a process ends.
struct Identifiers {
  Text main = GANTREL_BUNDLE_IDENTIFIER ""_text;
  Text menu = GANTREL_BUNDLE_IDENTIFIER ".menu"_text;
  Text agent = GANTREL_BUNDLE_IDENTIFIER ".agent"_text;
};
union Place {
  constexpr Place() : empty() {}
  ~Place() {}
  char empty;
  Identifiers identifiers;
};
constinit Place place;
struct Maker {
  Maker() { std::construct_at(&place.identifiers); }
};
[[gnu::init_priority(101)]] const Maker maker;

}  // namespace

constinit const Text& mainAppBundleIdentifier = place.identifiers.main;
constinit const Text& menuAppBundleIdentifier = place.identifiers.menu;
constinit const Text& agentAppBundleIdentifier = place.identifiers.agent;

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
