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

// Whether it is a directory of this user's, in which nobody else can do anything: as it usually is.
bool isPrivate(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == ::geteuid() && (status.st_mode & 0777) == 0700;
}

// Empty when `path` is a directory that only this user can enter. `kind` is what people call it.
// One that `isOurs` only has its mode wrong; another may be the whole machine's.
std::string problemWith(const std::string& kind, const std::string& path, bool isOurs) {
  const std::string that = kind + " " + path;
  const std::string another = ": set XDG_RUNTIME_DIR to a private folder of your own";
  const std::string mend = isOurs ? ": chmod 700 " + path + " mends it" : another + ", of mode 700";
  const UniqueFd directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!directory.isValid() || ::fstat(directory.get(), &status) != 0) {
    const int error = errno;
    const bool isWantOfRoom = error == EMFILE || error == ENFILE || error == ENOMEM;
    return that + " cannot be opened, " + std::strerror(error) + (isWantOfRoom ? "" : another);
  }
  if (status.st_uid != ::geteuid()) {
    return that + " belongs to another user" + another;
  }
  if ((status.st_mode & 077) != 0) return that + " is open to other users" + mend;
  if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
    return that + " cannot be read and written" + mend;
  }
  return {};
}

// Makes the folder when it is missing; empty when it is then there and safe.
std::string problemMaking(const std::string& path) {
  if (isPrivate(path)) return {};
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return "the folder " + path + " cannot be made: " + std::strerror(errno);
  }
  return problemWith("the folder", path, true);
}

// Makes `path` the path of <runtime>/gantrel, or of the folder `below` in it. Empty when it is one.
std::string problemFinding(std::string& path, std::string_view below) {
  path = base();
  std::string problem = isPrivate(path) ? "" : problemWith("the runtime directory", path, false);
  path += "/gantrel";
  if (problem.empty()) problem = problemMaking(path);
  if (below.empty()) return problem;
  path.append("/").append(below);
  return problem.empty() ? problemMaking(path) : problem;
}

}  // namespace

std::optional<std::string> runtimeDirectory(std::string_view below) {
  std::string path;
  if (!problemFinding(path, below).empty()) return std::nullopt;
  return path;
}

std::string runtimeDirectoryProblem(std::string_view below) {
  std::string path;
  return problemFinding(path, below);
}

}  // namespace Platform
