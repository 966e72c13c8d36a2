// serve: a command for each connection to an endpoint.
//
// The connection itself is the command's standard input and output; nothing stands in between. Its
// end is the command's, and what the command has written is the peer's to read after that.

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <set>
#include <utility>

#include "Platform/XPC/AnonymousSocket.h"
#include "Platform/XPC/Socket.h"
#include "Tools/Commands.h"
#include "Tools/Programs.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

constexpr auto untilKilled = std::chrono::seconds(2);
constexpr Patience untilLeftBehind =
    std::chrono::seconds(1);  // an entry, by an agent that is silent
constexpr auto untilTriedAgain = std::chrono::milliseconds(100);

// The signals that are read instead of taken. To be made before there are other threads.
UniqueFd takeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  return UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// On one thread.
class Server {
 public:
  explicit Server(std::vector<std::string> command) : command_(std::move(command)) {}

  // Starts the command for each connection that waits. False when there may be more, later.
  bool acceptAll(int listening) {
    for (;;) {
      const UniqueFd peer(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
      if (!peer.isValid()) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return errno == EAGAIN;
      }
      if (!isPeerOfThisUser(peer.get())) continue;
      if (const pid_t child = start(command_, peer.get(), peer.get(), Group::own)) {
        children_.insert(child);
      }
    }
  }

  void collectEnded() {
    while (const pid_t child = ::waitpid(-1, nullptr, WNOHANG)) {
      if (child < 0) return;
      children_.erase(child);
    }
  }

  bool hasChildren() const { return !children_.empty(); }

  void endChildren(int signal) {
    for (const pid_t child : children_) ::kill(-child, signal);
  }

 private:
  const std::vector<std::string> command_;
  std::set<pid_t> children_;
};

}  // namespace

Status serve(const Options& options, const Text& identifier,
             const std::vector<std::string>& command) {
  requireProgram(command[0]);
  const UniqueFd signals = takeSignals();
  std::optional<Registry> registry(options.patience());
  auto own = makeAnonymousSocket();
  if (!own) registry->require(identifier);  // says why, where it is the runtime directory
  if (!own) fail(Status::noAgent, "the system has no socket to give.");
  registry->registerEndpoint(own->endpoint, identifier);
  complain("serves " + shown(identifier) + ".");

  Server server(command);
  auto status = Status::done;
  int interrupts = 0;
  bool isFull = false;  // of processes or descriptors: some time later there may be room
  while (interrupts == 0 || server.hasChildren()) {
    pollfd events[] = {{signals.get(), POLLIN, 0},
                       {own && !isFull ? own->socket->get() : -1, POLLIN, 0}};
    const auto patience = isFull            ? untilTriedAgain
                          : interrupts == 2 ? untilKilled
                                            : std::chrono::milliseconds(-1);
    const int ready = ::poll(events, std::size(events), static_cast<int>(patience.count()));
    if (ready == 0 && interrupts == 2) server.endChildren(SIGKILL);
    bool isInterrupted = false;
    for (signalfd_siginfo signal; ::read(signals.get(), &signal, sizeof signal) > 0;) {
      isInterrupted = isInterrupted || signal.ssi_signo != SIGCHLD;
    }
    server.collectEnded();
    if (own) isFull = !server.acceptAll(own->socket->get());
    if (!isInterrupted) continue;
    if (++interrupts == 1) {
      // First nobody finds it any more, then those who had found it are let in.
      registry.reset();
      Registry last(std::min(options.patience(), untilLeftBehind));
      status = last.removeIfStill(own->endpoint, identifier);
      server.acceptAll(own->socket->get());
      own.reset();
      isFull = false;
      if (server.hasChildren()) complain("lets what runs finish; a second interrupt ends it.");
    } else {
      server.endChildren(SIGTERM);
      interrupts = 2;
    }
  }
  return status;
}

}  // namespace Gantrel_Sync_Helper
