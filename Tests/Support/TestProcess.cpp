#include "Tests/Support/TestProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <utility>

extern char** environ;

namespace TestSupport {
namespace {

constexpr int patienceMilliseconds = 60'000;

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) ::abort();
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
  Platform::UniqueFd read;
  Platform::UniqueFd write;
};

std::vector<char*> pointers(const std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (const std::string& string : strings) result.push_back(const_cast<char*>(string.c_str()));
  result.push_back(nullptr);
  return result;
}

}  // namespace

PrivateRuntimeDirectory::PrivateRuntimeDirectory() {
  char path[] = "/tmp/gantrel-test-XXXXXX";
  if (!::mkdtemp(path)) ::abort();
  path_ = path;
  ::setenv("XDG_RUNTIME_DIR", path, 1);
}

PrivateRuntimeDirectory::~PrivateRuntimeDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment) {
  Pipe in;
  Pipe out;
  Pipe err;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, in.read.get(), 0);
  ::posix_spawn_file_actions_adddup2(&actions, out.write.get(), 1);
  ::posix_spawn_file_actions_adddup2(&actions, err.write.get(), 2);
  std::vector<std::string> variables = environment;
  for (char** variable = environ; *variable; ++variable) variables.emplace_back(*variable);
  const int error = ::posix_spawnp(&pid_, arguments[0].c_str(), &actions, nullptr,
                                   pointers(arguments).data(), pointers(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) pid_ = -1;
  input_ = std::move(in.write);
  output_.descriptor = std::move(out.read);
  error_.descriptor = std::move(err.read);
}

ChildProcess::~ChildProcess() {
  if (pid_ < 0) return;
  signal(SIGKILL);
  wait();
}

void ChildProcess::swap(ChildProcess& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(input_, other.input_);
  std::swap(output_, other.output_);
  std::swap(error_, other.error_);
}

void ChildProcess::writeLine(const std::string& line) {
  const std::string bytes = line + "\n";
  if (::write(input_.get(), bytes.data(), bytes.size()) < 0) input_.reset();
}

bool ChildProcess::Stream::readMore() {
  pollfd readable{descriptor.get(), POLLIN, 0};
  char buffer[65536];
  if (::poll(&readable, 1, patienceMilliseconds) <= 0) return false;
  const ssize_t count = ::read(descriptor.get(), buffer, sizeof buffer);
  if (count > 0) unread.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

std::optional<std::string> ChildProcess::Stream::readLine() {
  std::size_t end;
  while ((end = unread.find('\n')) == std::string::npos) {
    if (!readMore()) return std::nullopt;
  }
  std::string line = unread.substr(0, end);
  unread.erase(0, end + 1);
  return line;
}

std::string ChildProcess::Stream::readAll() {
  while (readMore()) {
  }
  return std::exchange(unread, {});
}

void ChildProcess::signal(int number) {
  ::kill(pid_, number);
}

void ChildProcess::stop() {
  signal(SIGSTOP);
  int status = 0;
  ::waitpid(pid_, &status, WUNTRACED);
}

int ChildProcess::wait() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::size_t openDescriptors(int pid) {
  std::error_code error;
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", error);
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::string executableOf(const std::string& application) {
  return GANTREL_BUILD_DIR "/" + application + ".app/Contents/Linux/" + application;
}

}  // namespace TestSupport
