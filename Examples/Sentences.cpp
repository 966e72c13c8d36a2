#include "Examples/Sentences.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/RuntimeDirectory.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Platform/XPC/NamedService.h"
#include "Platform/XPC/Socket.h"
#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

constexpr const char* noDescriptor = "this process may open no more files (ulimit -n)";

// How to start the agent on this machine.
std::string howToStartTheAgent() {
  std::string how = "systemctl --user start gantrel-agent.socket starts it";
  const std::filesystem::path bundle = NSBundle::mainBundle().bundlePath();
  const std::filesystem::path agent =
      bundle.parent_path() / "GantrelAgent.app/Contents/Linux/GantrelAgent";
  std::error_code ignored;
  if (std::filesystem::exists(agent, ignored)) {
    how += ", or by hand and without a service manager, " + agent.native();
  }
  return how;
}

}  // namespace

void say(const std::string& line) {
  sayText(escaped(line) + "\n");
}

void sayText(const std::string& lines) {
  if (std::fputs(lines.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return;
  const int error = errno;
  if (error == EPIPE) endByBrokenPipe();
  // At once: other threads may be at work, and nothing is left that this process is for.
  std::_Exit(complain(std::string("its output cannot be written: ") + std::strerror(error) + "."));
}

int complain(const std::string& sentence) {
  std::fprintf(stderr, "%s: %s\n", escaped(program_invocation_short_name).c_str(),
               escaped(sentence).c_str());
  return 1;
}

std::string whyNoAgent() {
  const std::string problem = runtimeDirectoryProblem();
  if (!problem.empty()) return "the agent cannot be reached: " + problem + ".";
  const auto path = namedServicePath(agentAppBundleIdentifier);
  switch (path ? connectTo(*path).outcome : ConnectOutcome::refused) {
    case ConnectOutcome::refused:
      return "the agent is not running: " + howToStartTheAgent() + ".";
    case ConnectOutcome::tryLater:
      return "the agent cannot be reached now: it has too many callers, or " +
             std::string(noDescriptor) + ".";
    case ConnectOutcome::connected:
      break;
  }
  return "the agent is there, but gave no answer in time: try again.";
}

std::string whyNoListener() {
  const std::string problem = runtimeDirectoryProblem();
  return "it cannot listen: " + (problem.empty() ? noDescriptor : problem) + ".";
}

std::string whyNotRunning() {
  const std::string problem = NSRunningApplication::folderProblem();
  return "it cannot show others that it runs: " +
         (problem.empty() ? "the runtime directory is full, or " + std::string(noDescriptor)
                          : problem) +
         ".";
}

std::string whyNothingIsSeen() {
  const std::string problem = NSRunningApplication::folderProblem();
  return "it cannot see applications launch and end: " +
         (problem.empty() ? "all inotify instances of this user are taken (sysctl "
                            "fs.inotify.max_user_instances), or " +
                                std::string(noDescriptor)
                          : problem) +
         ".";
}

std::string problemWithOwnBundle() {
  if (NSBundle::mainBundle().bundleIdentifier()) return {};
  return "the application's Info.plist is missing, broken or without an identifier: install it "
         "again.";
}

}  // namespace Gantrel_Sync_Helper
