#include "Platform/Workspace/Opening.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc 2.36 forgot to say that this is C.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "Platform/Runtime/BackgroundThread.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

constexpr const char* addressOpener = "xdg-open";
constexpr const char* mailOpener = "xdg-email";

constexpr auto patience = std::chrono::seconds(2);

// Starts the program that PATH has under the first argument's name; -1 when it cannot be started.
pid_t start(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0);
  ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
  ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  ::sigfillset(&signals);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);

  pid_t pid = -1;
  const int error =
      ::posix_spawnp(&pid, pointers[0], &actions, &attributes, pointers.data(), ::environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

// Waits for the process and takes its status; whether it ended by itself with 0.
bool endedWell(const UniqueFd& process) {
  siginfo_t info{};
  int result;
  do {
    result = ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &info, WEXITED);
  } while (result != 0 && errno == EINTR);
  return result == 0 && info.si_code == CLD_EXITED && info.si_status == 0;
}

// Whether the process ends before the patience does.
bool endsInTime(const UniqueFd& process) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd ended{process.get(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(left.count())) > 0) return true;
  }
}

// The status of a child is thrown away, with its number, where SIGCHLD is ignored.
void stopIgnoringChildren() {
  struct sigaction action {};
  if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
    ::signal(SIGCHLD, SIG_DFL);
  }
}

bool open(const std::vector<std::string>& arguments) {
  stopIgnoringChildren();

  const pid_t pid = start(arguments);
  if (pid < 0) return false;
  // The number stays the child's until its status is taken, which nobody else does.
  auto process = std::make_shared<UniqueFd>(::pidfd_open(pid, 0));
  if (!process->isValid()) {
    // Out of descriptors: how it goes cannot be seen, but its end is taken all the same.
    startBackgroundThread("gantrel-opener", [pid] { ::waitpid(pid, nullptr, 0); });
    return false;
  }
  if (endsInTime(*process)) return endedWell(*process);
  startBackgroundThread("gantrel-opener", [process] { endedWell(*process); });
  return true;
}

// What begins with a dash is an option to an opener, and what holds a NUL would be cut short.
bool isArgument(const std::string& text) {
  return !text.empty() && text.front() != '-' && text.find('\0') == text.npos;
}

bool isOnPath(const std::string& program) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path ? path : "/bin:/usr/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

}  // namespace

bool openAddress(const std::string& address) {
  return isArgument(address) && open({addressOpener, address});
}

bool openMail(const Mail& mail) {
  if (!isArgument(mail.recipient) || !isArgument(mail.subject)) return false;
  std::vector<std::string> arguments = {mailOpener, "--utf8", "--subject", mail.subject};
  if (mail.attachment) {
    if (!isArgument(*mail.attachment)) return false;
    arguments.insert(arguments.end(), {"--attach", *mail.attachment});
  }
  arguments.push_back(mail.recipient);
  return open(arguments);
}

std::string missingOpener() {
  for (const char* const opener : {addressOpener, mailOpener}) {
    if (!isOnPath(opener)) {
      return std::string(opener) + " is not installed (package xdg-utils)";
    }
  }
  return {};
}

}  // namespace Platform
