#include "Platform/Runtime/Stop.h"

#include <unistd.h>

#include <string>

#include "Platform/Runtime/Logger.h"

namespace Platform {
namespace {

[[noreturn]] void report(std::string text) {
  Logger::sharedInstance().flush();
  text.insert(0, "fatal error: ").push_back('\n');
  // A report that cannot be written has nobody to be told about it.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
  ::_exit(static_cast<int>(ExitStatus::software));
}

}  // namespace

void stopProcess(ExitStatus status) {
  Logger::sharedInstance().flush();
  ::_exit(static_cast<int>(status));
}

void fatalError(std::string_view message, std::string_view sourceFile, unsigned line) {
  report(std::string(message) + ": file " + std::string(sourceFile) + ", line " +
         std::to_string(line));
}

void unimplementedInitialiser(std::string_view initialiser, std::string_view className) {
  report("unimplemented initialiser \"" + std::string(initialiser) + "\" of class \"" +
         std::string(className) + "\"");
}

}  // namespace Platform
