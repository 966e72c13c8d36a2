#include "Platform/Runtime/RuntimeDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

std::string base() {
  const char* const fromEnvironment = std::getenv("XDG_RUNTIME_DIR");
  // The base directory rules have relative paths ignored.
  if (fromEnvironment && fromEnvironment[0] == '/') return fromEnvironment;
  return "/run/user/" + std::to_string(::geteuid());
}

// Empty when `path` is a directory that only this user can enter.
std::string problemWith(const std::string& path) {
  const UniqueFd directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!directory.isValid() || ::fstat(directory.get(), &status) != 0) {
    return "the runtime directory " + path + " cannot be used: " + std::strerror(errno);
  }
  if (status.st_uid != ::geteuid())
    return "the runtime directory " + path + " belongs to another user";
  if ((status.st_mode & 077) != 0)
    return "the runtime directory " + path + " is open to other users";
  if (::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    return "the runtime directory " + path + " is not writable";
  }
  return {};
}

// Makes the folder when it is missing; empty when it is then there and safe.
std::string problemMaking(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return "the folder " + path + " cannot be made: " + std::strerror(errno);
  }
  return problemWith(path);
}

}  // namespace

std::optional<std::string> runtimeDirectory(std::string_view below) {
  std::string path = base();
  if (!problemWith(path).empty()) return std::nullopt;
  path += "/gantrel";
  if (!problemMaking(path).empty()) return std::nullopt;
  if (below.empty()) return path;
  path.append("/").append(below);
  if (!problemMaking(path).empty()) return std::nullopt;
  return path;
}

std::string runtimeDirectoryProblem() {
  const std::string path = base();
  const std::string problem = problemWith(path);
  return problem.empty() ? problemMaking(path + "/gantrel") : problem;
}

}  // namespace Platform
