// What tests of real processes need: a private runtime directory, child processes to talk to, and
// counts of what a process holds. It includes what nearly all such tests use.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"

namespace TestSupport {

// Whether a sanitizer slows this build down several times over; tests of large amounts take less
// then.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = false;
#endif

// A runtime directory of the test's own, in XDG_RUNTIME_DIR while it lives.
class PrivateRuntimeDirectory {
 public:
  PrivateRuntimeDirectory();
  ~PrivateRuntimeDirectory();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A child process with its standard streams on pipes. It is killed when the object goes.
class ChildProcess {
 public:
  // `environment` ("NAME=value") goes before this process's own variables.
  explicit ChildProcess(const std::vector<std::string>& arguments,
                        const std::vector<std::string>& environment = {});

  int pid() const { return *pid_; }
  void writeLine(const std::string& line);
  void closeInput() { input_.reset(); }
  // The next line, without its end; none at the end of the stream.
  std::optional<std::string> readLine();
  std::string readAllOutput() { return readAll(output_); }
  std::string readAllErrors() { return readAll(error_); }
  void signal(int number) {
    if (pid() > 0) ::kill(pid(), number);
  }
  // Returns when the process has stopped, which is some time after it was told to.
  void stop();
  // The exit status, or minus the signal that ended it.
  int wait();

 private:
  struct Ending {
    void operator()(pid_t* pid) const;
  };
  struct Closing {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  using Stream = std::unique_ptr<std::FILE, Closing>;
  static std::string readAll(const Stream& stream);

  std::unique_ptr<pid_t, Ending> pid_;
  Stream input_, output_, error_;
};

std::size_t openDescriptors(int pid);

// Looks again and again, whenever nobody else wants to run, for something that no event tells of.
// False after a minute.
template <class Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// The executable of a bundle of the build.
std::string executableOf(const std::string& application);

}  // namespace TestSupport
