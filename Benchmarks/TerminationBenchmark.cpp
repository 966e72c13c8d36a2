// bench_termination [ROUNDS]: how long after a process's end a watcher's delegate is called,
// against what the kernel alone takes to tell of it.
//
// The three take turns in one run, each with a process of its own that has checked in and is then
// killed: a blocking read of inotify (a file was closed), a poll of the process's pidfd (it has
// ended), and appDidTerminate. Prints the medians in microseconds; exit status 1 when the
// callback's is more than twice that of inotify, which it is built on.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"
#include "Platform/Workspace/CheckIns.h"
#include "Shared/AppLaunchTerminationObservation.h"

namespace {

using namespace Gantrel_Sync_Helper;
using Platform::UniqueFd;
using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(2);
}

int beAnApplication() {
  const UniqueFd checkIn = Platform::CheckIns::checkIn(mainAppBundleIdentifier);
  if (!checkIn.isValid() || ::write(STDOUT_FILENO, "r", 1) != 1) return 1;
  for (;;) ::pause();
}

// An application that has checked in.
class Application {
 public:
  Application() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
    const UniqueFd read(ends[0]);
    UniqueFd write(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, write.get(), STDOUT_FILENO);
    char self[] = "/proc/self/exe";
    char role[] = "application";
    char* arguments[] = {self, role, nullptr};
    if (::posix_spawn(&pid_, self, &actions, nullptr, arguments, environ) != 0) fail("spawn");
    ::posix_spawn_file_actions_destroy(&actions);
    write.reset();
    char byte;
    if (::read(read.get(), &byte, 1) != 1) fail("check-in");
  }
  ~Application() { ::waitpid(pid_, nullptr, 0); }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  pid_t pid() const { return pid_; }
  Clock::time_point kill() const {
    const auto now = Clock::now();
    ::kill(pid_, SIGKILL);
    return now;
  }

 private:
  pid_t pid_ = 0;
};

Clock::duration bareInotify() {
  const UniqueFd inotify(::inotify_init1(IN_CLOEXEC));
  const Application application;
  if (::inotify_add_watch(inotify.get(), Platform::CheckIns::folder()->c_str(), IN_CLOSE_WRITE) <
      0) {
    fail("inotify");
  }
  const auto start = application.kill();
  alignas(inotify_event) char event[sizeof(inotify_event) + NAME_MAX + 1];
  if (::read(inotify.get(), event, sizeof event) < 0) fail("read");
  return Clock::now() - start;
}

Clock::duration barePidfd() {
  const Application application;
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, application.pid(), 0)));
  pollfd ended{process.get(), POLLIN, 0};
  const auto start = application.kill();
  if (::poll(&ended, 1, -1) != 1) fail("poll");
  return Clock::now() - start;
}

struct Delegate final : AppLaunchTerminationListenerDelegate {
  void appDidLaunch(GApp) override { launched.set_value(); }
  void appDidTerminate(GApp) override { ended.set_value(Clock::now()); }
  std::promise<void> launched;
  std::promise<Clock::time_point> ended;
};

Clock::duration callback() {
  const auto delegate = std::make_shared<Delegate>();
  const auto listener = std::make_shared<AppLaunchTerminationListener>();
  listener->setDelegate(delegate);
  const AppLaunchTerminationObservation observation(listener, {GApp::main});
  const Application application;
  delegate->launched.get_future().wait();
  auto ended = delegate->ended.get_future();
  const auto start = application.kill();
  return ended.get() - start;
}

struct Contender {
  const char* name;
  Clock::duration (*measure)();
  std::vector<double> microseconds = {};
  double quantile(double part) {
    std::sort(microseconds.begin(), microseconds.end());
    return microseconds[static_cast<std::size_t>(part *
                                                 static_cast<double>(microseconds.size() - 1))];
  }
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view argument = argc > 1 ? argv[1] : "300";
  if (argument == "application") return beAnApplication();
  const int rounds = std::max(1, std::atoi(argument.data()));

  char runtime[] = "/tmp/gantrel-bench-XXXXXX";
  if (!::mkdtemp(runtime)) fail("mkdtemp");
  ::setenv("XDG_RUNTIME_DIR", runtime, 1);
  Contender contenders[] = {{"inotify", bareInotify}, {"pidfd", barePidfd}, {"callback", callback}};
  for (int round = 0; round < rounds; ++round) {
    for (Contender& contender : contenders) {
      contender.microseconds.push_back(
          std::chrono::duration<double, std::micro>(contender.measure()).count());
    }
  }
  std::filesystem::remove_all(runtime);

  std::printf("%-10s %10s %10s   (microseconds from the kill, %d rounds)\n", "", "median", "90 %",
              rounds);
  for (Contender& c : contenders) {
    std::printf("%-10s %10.1f %10.1f\n", c.name, c.quantile(0.5), c.quantile(0.9));
  }
  const double ratio = contenders[2].quantile(0.5) / contenders[0].quantile(0.5);
  std::printf("callback / inotify: %.2f   callback / pidfd: %.2f\n", ratio,
              contenders[2].quantile(0.5) / contenders[1].quantile(0.5));
  return ratio <= 2 ? 0 : 1;
}
