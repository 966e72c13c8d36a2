// An application for tests to start and end. It says by a line that it is ready, and ends with its
// input. What it does depends on its arguments:
//
//   (none)             checks in as the bundle it lies in: "running" or "none"
//   as IDENTIFIER      checks in under this identifier
//   fork IDENTIFIER    the same, and leaves behind a child that shares the check-in
//   watch              "LAUNCHES ENDS MAIN MENU", what a watcher has told and counted: at its
//                      start, and after each change
#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <utility>

#include "Platform/Workspace/CheckIns.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Shared/AppLaunchTerminationObservation.h"

namespace {

using namespace Gantrel_Sync_Helper;
using namespace Platform;

void say(const char* line) {
  std::puts(line);
  std::fflush(stdout);
}

void waitForEndOfInput() {
  char byte;
  while (::read(STDIN_FILENO, &byte, 1) > 0) continue;
}

struct Watcher final : AppLaunchTerminationListener, AppLaunchTerminationListenerDelegate {
  void appDidLaunch(GApp) override { ++launches; }
  void appDidTerminate(GApp) override { ++ends; }
  void setLaunchedApps(std::unordered_map<GApp, std::int64_t> counts) override {
    std::printf("%d %d %d %d\n", launches, ends, static_cast<int>(counts.at(GApp::main)),
                static_cast<int>(counts.at(GApp::menu)));
    std::fflush(stdout);
    AppLaunchTerminationListener::setLaunchedApps(std::move(counts));
  }
  int launches = 0;
  int ends = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "watch") {
    const auto watcher = std::make_shared<Watcher>();
    watcher->setDelegate(watcher);
    const AppLaunchTerminationObservation observation(watcher, {GApp::main, GApp::menu});
    waitForEndOfInput();
    return 0;
  }
  UniqueFd checkIn;
  bool isRunning = false;
  if (mode.empty()) {
    const auto current = NSRunningApplication::currentApplication();
    isRunning = current && current == NSRunningApplication::currentApplication();
  } else {
    checkIn = CheckIns::checkIn(Text::fromUtf8(argv[2]).value());
    isRunning = checkIn.isValid();
  }
  const bool isChild = mode == "fork" && ::fork() == 0;
  if (!isChild) say(isRunning ? "running" : "none");
  waitForEndOfInput();
}
