// connect: standard input and output, or a command's, on a connection.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <future>
#include <iterator>
#include <span>
#include <thread>
#include <utility>

#include "Platform/XPC/Socket.h"
#include "Tools/Commands.h"
#include "Tools/Programs.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

constexpr auto untilTriedAgain = std::chrono::milliseconds(10);

UniqueFd connectedTo(const Text& identifier, Patience patience) {
  const EndpointRef endpoint = Registry(patience).require(identifier);
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    auto connected = connectTo("/proc/self/fd/" + std::to_string(endpoint->descriptor()));
    if (connected.outcome == ConnectOutcome::connected) return std::move(connected.socket);
    if (connected.outcome == ConnectOutcome::refused) failAsGone(identifier);
    if (std::chrono::steady_clock::now() >= end) {
      fail(Status::notInTime, "whoever serves " + shown(identifier) + " runs, but lets nobody in.");
    }
    std::this_thread::sleep_for(untilTriedAgain);
  }
}

enum class Relayed { all, readInPart, writtenInPart };

// Nothing is said by a signal where the peer has gone; a broken pipe says it by one, as usual.
ssize_t put(int to, std::span<const std::byte> bytes) {
  const ssize_t count = ::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count < 0 && errno == ENOTSOCK ? ::write(to, bytes.data(), bytes.size()) : count;
}

// Copies until the input ends, or either side fails; while there is no input, until `peer` ends.
Relayed relay(int from, int to, int peer = -1) {
  std::vector<std::byte> buffer(256 << 10);
  for (;;) {
    pollfd events[] = {{from, POLLIN, 0}, {peer, 0, 0}};
    if (::poll(events, std::size(events), -1) < 0) continue;
    if (events[0].revents == 0) return Relayed::all;
    const ssize_t count = ::read(from, buffer.data(), buffer.size());
    if (count == 0) return Relayed::all;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Relayed::readInPart;
    auto rest = std::span<const std::byte>(buffer).first(static_cast<std::size_t>(count));
    while (!rest.empty()) {
      const ssize_t written = put(to, rest);
      if (written < 0 && errno != EINTR) return Relayed::writtenInPart;
      if (written > 0) rest = rest.subspan(static_cast<std::size_t>(written));
    }
  }
}

// Sends what there is, and then the sign that this was all. False when the peer did not take it.
bool sendFrom(int input, int peer) {
  const bool isSent = relay(input, peer, peer) != Relayed::writtenInPart;
  ::shutdown(peer, SHUT_WR);
  return isSent;
}

Status connectStandard(int peer) {
  auto isSent = std::async(std::launch::async, sendFrom, STDIN_FILENO, peer);
  const Relayed answered = relay(peer, STDOUT_FILENO);
  if (answered == Relayed::writtenInPart) ::shutdown(peer, SHUT_RDWR);
  // The peer may still read when it has nothing more to say.
  const bool isTaken = isSent.get() && answered != Relayed::readInPart;
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(peer, SOL_SOCKET, SO_ERROR, &error, &size);
  if (answered == Relayed::writtenInPart) {
    fail(Status::unwritten, "standard output cannot be written.");
  }
  if (isTaken && error == 0) return Status::done;
  fail(Status::ended, "the other side ended before it had read everything.");
}

// What the program writes goes to the peer, and what the peer writes is its input.
Status connectProgram(const std::vector<std::string>& command, UniqueFd peer) {
  std::array<int, 2> ends{-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail(Status::cannotRun, "there is no pipe to be had.");
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

Status connect(const Options& options, const Text& identifier,
               const std::vector<std::string>& command) {
  if (!command.empty()) requireProgram(command[0]);
  UniqueFd peer = connectedTo(identifier, options.patience());
  return command.empty() ? connectStandard(peer.get()) : connectProgram(command, std::move(peer));
}

}  // namespace Gantrel_Sync_Helper
