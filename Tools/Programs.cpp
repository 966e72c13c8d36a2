#include "Tools/Programs.h"

#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "Platform/Runtime/Escaped.h"
#include "Tools/Terminal.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

void requireProgram(const std::string& name) {
  const char* const path = std::getenv("PATH");
  const bool isPath = name.find('/') != name.npos;
  std::istringstream folders(isPath ? "." : path ? path : "/bin:/usr/bin");
  bool isThere = false;
  for (std::string folder; std::getline(folders, folder, ':');) {
    const auto file = std::filesystem::path(folder) / name;
    std::error_code hidden;
    const auto status = std::filesystem::status(file, hidden);
    isThere = isThere || std::filesystem::exists(status);
    if (std::filesystem::is_regular_file(status) && ::access(file.c_str(), X_OK) == 0) return;
  }
  if (isThere) fail(Status::cannotRun, "the command " + escaped(name) + " may not be run.");
  fail(Status::notFound, "there is no command " + escaped(name) + ".");
}

pid_t start(const std::vector<std::string>& command, int input, int output, Group group) {
  std::vector<char*> arguments;
  for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  sigset_t none;
  sigemptyset(&none);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  const int ownGroup = group == Group::own ? POSIX_SPAWN_SETPGROUP : 0;
  ::posix_spawnattr_setflags(&attributes, static_cast<short>(POSIX_SPAWN_SETSIGMASK | ownGroup));
  pid_t process = 0;
  const int error =
      ::posix_spawnp(&process, arguments[0], &actions, &attributes, arguments.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error == 0) return process;
  complain(escaped(command[0]) + " could not be started: " + std::strerror(error) + ".");
  return 0;
}

}  // namespace Gantrel_Sync_Helper
