#include "Tests/Support/TestProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <iterator>

extern char** environ;

namespace TestSupport {
namespace {

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
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  const auto pipeTo = [&actions](int number, Stream& ours) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) ::abort();
    const bool isInput = number == STDIN_FILENO;
    ours.reset(::fdopen(ends[isInput], isInput ? "w" : "r"));
    ::posix_spawn_file_actions_adddup2(&actions, ends[!isInput], number);
    return Platform::UniqueFd(ends[!isInput]);
  };
  const Platform::UniqueFd childs[] = {pipeTo(0, input_), pipeTo(1, output_), pipeTo(2, error_)};
  std::vector<std::string> variables = environment;
  for (char** variable = environ; *variable; ++variable) variables.emplace_back(*variable);
  pid_.reset(new pid_t(-1));
  if (::posix_spawnp(pid_.get(), arguments[0].c_str(), &actions, nullptr,
                     pointers(arguments).data(), pointers(variables).data()) != 0) {
    *pid_ = -1;
  }
  ::posix_spawn_file_actions_destroy(&actions);
}

void ChildProcess::Ending::operator()(pid_t* pid) const {
  if (*pid > 0 && ::kill(*pid, SIGKILL) == 0) ::waitpid(*pid, nullptr, 0);
  delete pid;
}

void ChildProcess::writeLine(const std::string& line) {
  std::fputs((line + "\n").c_str(), input_.get());
  std::fflush(input_.get());
}

std::optional<std::string> ChildProcess::readLine() {
  std::string line;
  for (int byte; (byte = std::fgetc(output_.get())) != '\n'; line += static_cast<char>(byte)) {
    if (byte == EOF) return std::nullopt;
  }
  return line;
}

std::string ChildProcess::readAll(const Stream& stream) {
  std::string all;
  for (int byte; (byte = std::fgetc(stream.get())) != EOF;) all += static_cast<char>(byte);
  return all;
}

void ChildProcess::stop() {
  signal(SIGSTOP);
  ::waitpid(pid(), nullptr, WUNTRACED);
}

int ChildProcess::wait() {
  int status = 0;
  ::waitpid(std::exchange(*pid_, -1), &status, 0);
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
