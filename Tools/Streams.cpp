// serve and connect: programs whose standard input and output are a connection.
//
// What serves has the connection itself as both; nothing stands in between. Its end is the
// program's, and what the program has written is the peer's to read after that. What connects has
// its output relayed, so that the end of it, and no more, can be told to the peer.

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <set>
#include <span>
#include <sstream>
#include <thread>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Platform/XPC/AnonymousSocket.h"
#include "Platform/XPC/Socket.h"
#include "Tools/Commands.h"
#include "Tools/Listeners.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using namespace std::chrono_literals;

namespace {

constexpr auto untilTriedAgain = 10ms;    // to get in, or to have room for one more
constexpr Patience untilLeftBehind = 1s;  // an entry, by an agent that is silent
constexpr unsigned untilKilled = 2;       // seconds after a second interrupt

// A program to be run, and its arguments.
using Words = std::vector<std::string>;

// Ends the process with a sentence, and a shell's status, when there is no such program, or it may
// not be run.
void requireProgram(const std::string& name) {
  const char* const path = std::getenv("PATH");
  const bool isPath = name.find('/') != name.npos;
  std::istringstream folders(isPath ? "." : path ? path : "/bin:/usr/bin");
  bool isThere = false;
  for (std::string folder; std::getline(folders, folder, ':');) {
    const auto file = std::filesystem::path(folder) / name;
    std::error_code hidden;
    const auto status = std::filesystem::status(file, hidden);
    const bool isFolder = std::filesystem::is_directory(status);  // passed over on the path
    isThere = isThere || (std::filesystem::exists(status) && (isPath || !isFolder));
    if (std::filesystem::is_regular_file(status) && ::access(file.c_str(), X_OK) == 0) return;
  }
  if (isThere) fail(Status::cannotRun, "the command " + escaped(name) + " may not be run.");
  fail(Status::notFound, "there is no command " + escaped(name) + ".");
}

enum class Group { same, own };  // whom an interrupt of the terminal reaches

// As nohup(1) leaves it to what it starts. Shells do so with SIGINT for whatever is to run in the
// background; but who sends one to it all the same means it.
bool ignoresHangup() {
  struct sigaction now {};
  return ::sigaction(SIGHUP, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

// Starts the program with these as its standard input and output, and every signal as at first. 0
// when it cannot be started, which is said.
pid_t start(const Words& command, int input, int output, Group group) {
  std::vector<char*> arguments;
  for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  struct Setup {
    bool isOwnGroup;
    bool ignoresHangup;  // which the library has reset
  } setup{group == Group::own, ignoresHangup()};
  const auto prepare = [](void* data) {  // in the new process
    const auto& its = *static_cast<const Setup*>(data);
    if (its.ignoresHangup) std::signal(SIGHUP, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (its.isOwnGroup) ::setpgid(0, 0);
  };
  constexpr auto flags =
      GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_LEAVE_DESCRIPTORS_OPEN);
  pid_t process = 0;
  GError* error = nullptr;
  g_spawn_async_with_fds(nullptr, arguments.data(), nullptr, flags, prepare, &setup, &process,
                         input, output, -1, &error);
  if (!error) return process;
  complain(escaped(command[0]) + " could not be started: " + escaped(error->message) + ".");
  g_error_free(error);
  return 0;
}

// The signals that are read instead of taken. To be made before there are other threads.
UniqueFd takeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGALRM}) sigaddset(&signals, signal);
  if (!ignoresHangup()) sigaddset(&signals, SIGHUP);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  return UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Starts the command for a connection that waits. False when none does, or there is no room.
bool acceptOne(int listening, const Words& command, std::set<pid_t>& programs) {
  const UniqueFd peer(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
  if (!peer.isValid()) return false;
  if (!isPeerOfThisUser(peer.get())) return true;
  const pid_t program = start(command, peer.get(), peer.get(), Group::own);
  if (program != 0) programs.insert(program);
  return true;
}

UniqueFd connectedTo(const Text& identifier, Patience patience) {
  const EndpointRef endpoint = Registry(patience).require(identifier);
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    auto connected = connectTo(pathOf(*endpoint));
    if (connected.outcome == ConnectOutcome::connected) return std::move(connected.socket);
    if (connected.outcome == ConnectOutcome::refused) failAsGone(identifier);
    if (std::chrono::steady_clock::now() >= end) {
      fail(Status::notInTime, "whoever serves " + shown(identifier) + " runs, but lets nobody in.");
    }
    std::this_thread::sleep_for(untilTriedAgain);
  }
}

// Nothing is said by a signal where the peer has gone; a broken pipe says it by one, as usual.
ssize_t put(int to, std::span<const std::byte> bytes) {
  const ssize_t count = ::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count < 0 && errno == ENOTSOCK ? ::write(to, bytes.data(), bytes.size()) : count;
}

// Copies until the input ends, or either side fails; while there is no input, until `peer` ends.
// Gives the side that failed, -1 when none did.
int relay(int from, int to, int peer = -1) {
  std::vector<std::byte> buffer(256 << 10);
  for (;;) {
    pollfd events[] = {{from, POLLIN, 0}, {peer, 0, 0}};
    if (::poll(events, std::size(events), -1) < 0) continue;
    if (events[0].revents == 0) return -1;
    const ssize_t count = ::read(from, buffer.data(), buffer.size());
    if (count == 0 || (count < 0 && errno == EBADF)) return -1;  // as nohup(1) leaves an input
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return from;
    auto rest = std::span<const std::byte>(buffer).first(static_cast<std::size_t>(count));
    while (!rest.empty()) {
      const ssize_t written = put(to, rest);
      if (written < 0 && errno != EINTR) return to;
      if (written > 0) rest = rest.subspan(static_cast<std::size_t>(written));
    }
  }
}

// Sends what there is, and then the sign that this was all. Gives the side that failed, as `relay`.
int sendFrom(int input, int peer) {
  const int failed = relay(input, peer, peer);
  ::shutdown(peer, SHUT_WR);
  return failed;
}

Status connectStandard(int peer) {
  auto sending = std::async(std::launch::async, sendFrom, STDIN_FILENO, peer);
  const int failed = relay(peer, STDOUT_FILENO);
  if (failed == STDOUT_FILENO) ::shutdown(peer, SHUT_RDWR);
  // The peer may still read when it has nothing more to say.
  const int failedToSend = sending.get();
  const bool isTaken = failedToSend != peer && failed != peer;
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(peer, SOL_SOCKET, SO_ERROR, &error, &size);
  if (failed == STDOUT_FILENO) fail(Status::unwritten, "standard output cannot be written.");
  if (failedToSend == STDIN_FILENO) fail(Status::unread, "standard input cannot be read.");
  if (isTaken && error == 0) return Status::done;
  fail(Status::ended, "the other side ended before it had read everything.");
}

// What the program writes goes to the peer, and what the peer writes is its input.
Status connectProgram(const Words& command, UniqueFd peer) {
  int ends[] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) fail(Status::cannotRun, "there is no pipe to be had.");
  UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);
  const pid_t program = start(command, peer.get(), input.get(), Group::same);
  if (program == 0) return Status::cannotRun;
  input.reset();
  sendFrom(output.get(), peer.get());
  output.reset();  // a program that still writes, to a peer that has gone, learns of it
  int status = 0;
  while (::waitpid(program, &status, 0) < 0 && errno == EINTR) {
  }
  constexpr int killed = 128;
  return static_cast<Status>(WIFEXITED(status) ? WEXITSTATUS(status) : killed + WTERMSIG(status));
}

}  // namespace

Status serve(const Request& request) {
  requireProgram(request.words[0]);
  const UniqueFd signals = takeSignals();
  std::optional<Registry> registry(request.patience());
  auto own = makeAnonymousSocket();
  if (!own) requireRuntimeDirectory();
  if (!own) fail(Status::noAgent, "the system has no socket to give.");
  registry->registerEndpoint(own->endpoint, request.identifier);
  complain("serves " + shown(request.identifier) + ".");

  auto status = Status::done;
  std::set<pid_t> programs;  // that run, each the first of a group
  const auto signalAll = [&](int signal) {
    for (const pid_t program : programs) ::kill(-program, signal);
  };
  while (own || !programs.empty()) {
    pollfd events[] = {{signals.get(), POLLIN, 0}, {own ? own->socket->get() : -1, POLLIN, 0}};
    ::poll(events, std::size(events), -1);
    if (events[1].revents != 0 && !acceptOne(own->socket->get(), request.words, programs)) {
      std::this_thread::sleep_for(untilTriedAgain);
    }
    signalfd_siginfo signal;
    if (::read(signals.get(), &signal, sizeof signal) < 0) continue;
    if (signal.ssi_signo == SIGCHLD) {
      for (pid_t ended; (ended = ::waitpid(-1, nullptr, WNOHANG)) > 0;) programs.erase(ended);
    } else if (signal.ssi_signo == SIGALRM) {
      signalAll(SIGKILL);
    } else if (!own) {
      signalAll(SIGTERM);
      ::alarm(untilKilled);
    } else {
      // First nobody finds it any more, then those who had found it are let in.
      registry.reset();
      Registry last(std::min(request.patience(), untilLeftBehind));
      status = last.remove(own->endpoint, request.identifier);
      while (acceptOne(own->socket->get(), request.words, programs)) {
      }
      own.reset();
      if (!programs.empty()) complain("lets what runs finish; a second interrupt ends it.");
    }
  }
  return status;
}

Status connect(const Request& request) {
  if (!request.words.empty()) requireProgram(request.words[0]);
  UniqueFd peer = connectedTo(request.identifier, request.patience());
  return request.words.empty() ? connectStandard(peer.get())
                               : connectProgram(request.words, std::move(peer));
}

}  // namespace Gantrel_Sync_Helper
