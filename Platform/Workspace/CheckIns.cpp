#include "Platform/Workspace/CheckIns.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <iterator>
#include <random>

#include "Platform/Runtime/RuntimeDirectory.h"

namespace Platform::CheckIns {
namespace {

constexpr const char* folderName = "applications";

// At a check-in: how many names of the folder are read, and how many of the files looked at.
constexpr std::size_t mostNames = 1024;
constexpr std::size_t mostLooks = 32;

constexpr std::size_t uniqueLength = 32;
constexpr std::string_view lowerDigits = "0123456789abcdef";
constexpr std::string_view upperDigits = "0123456789ABCDEF";

std::string newUnique() {
  std::array<unsigned char, uniqueLength / 2> bytes{};
  // Up to 256 bytes never fail nor come short.
  [[maybe_unused]] const auto filled = ::getrandom(bytes.data(), bytes.size(), 0);
  std::string unique;
  for (const unsigned char byte : bytes)
    unique.append({lowerDigits[byte >> 4], lowerDigits[byte & 15]});
  return unique;
}

bool isUnique(std::string_view text) {
  return text.size() == uniqueLength &&
         text.find_first_not_of(lowerDigits) == std::string_view::npos;
}

bool isTemporary(std::string_view name) {
  return name.starts_with('.') && isUnique(name.substr(1));
}

bool standsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

std::string encoded(std::string_view identifier) {
  std::string name;
  for (const char c : identifier) {
    if (standsForItself(c) && !(c == '.' && name.empty())) {
      name.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name.append({'%', upperDigits[byte >> 4], upperDigits[byte & 15]});
    }
  }
  return name;
}

std::string decoded(std::string_view name) {
  std::string identifier;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != '%' || name.size() - i < 3) {
      identifier.push_back(name[i]);
      continue;
    }
    const std::size_t high = upperDigits.find(name[++i]);
    const std::size_t low = upperDigits.find(name[++i]);
    identifier.push_back(static_cast<char>(high << 4 | low));
  }
  return identifier;
}

struct flock wholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Removes some of what ended processes have left. Chance says which files it looks at, so that many
// that run cannot hide the others for good.
void removeLeftovers(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end;
       !error && entry != end && names.size() < mostNames; entry.increment(error)) {
    names.push_back(entry->path().filename().native());
  }
  std::vector<std::string> chosen;
  std::sample(names.begin(), names.end(), std::back_inserter(chosen), mostLooks,
              std::minstd_rand(std::random_device()()));
  for (const std::string& name : chosen) {
    if (isTemporary(name) || bundleIdentifierOf(name)) presence(folder, name);
  }
}

}  // namespace

std::optional<std::string> folder() {
  return runtimeDirectory(folderName);
}

std::string folderProblem() {
  return runtimeDirectoryProblem(folderName);
}

UniqueFd checkIn(const Text& bundleIdentifier) {
  const auto in = folder();
  if (!in) return {};
  removeLeftovers(*in);
  // Whoever looks through the folder takes the file for a leftover when it is not locked yet, and
  // removes it: then once more.
  for (int attempt = 0; attempt < 32; ++attempt) {
    const std::string unique = newUnique();
    const std::string name = encoded(bundleIdentifier.utf8()) + '@' + unique;
    if (name.size() > NAME_MAX) return {};
    const std::string temporary = *in + "/." + unique;
    UniqueFd file(::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.isValid()) return {};
    auto lock = wholeFile(F_WRLCK);
    if (::fcntl(file.get(), F_OFD_SETLK, &lock) == 0 &&
        ::rename(temporary.c_str(), (*in + '/' + name).c_str()) == 0) {
      return file;
    }
    ::unlink(temporary.c_str());
  }
  return {};
}

std::optional<Text> bundleIdentifierOf(std::string_view name) {
  const std::size_t at = name.find('@');
  if (at == std::string_view::npos || !isUnique(name.substr(at + 1))) return std::nullopt;
  std::string identifier = decoded(name.substr(0, at));
  // One name for one identifier.
  if (encoded(identifier) != name.substr(0, at)) return std::nullopt;
  return Text::fromUtf8(std::move(identifier));
}

std::vector<std::string> names(const std::string& folder) {
  std::vector<std::string> found;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename().native();
    if (isTemporary(name)) {
      presence(folder, name);
    } else if (bundleIdentifierOf(name)) {
      found.push_back(std::move(name));
    }
  }
  return found;
}

Presence presence(const std::string& folder, const std::string& name) {
  const std::string path = folder + '/' + name;
  const UniqueFd file(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.isValid()) {
    const bool noRoom = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
    return noRoom ? Presence::unknown : Presence::gone;
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != ::geteuid()) {
    return Presence::gone;
  }
  // Asking for a read lock needs no right to write, takes nothing and tells nobody.
  auto lock = wholeFile(F_RDLCK);
  if (::fcntl(file.get(), F_OFD_GETLK, &lock) != 0) return Presence::unknown;
  if (lock.l_type != F_UNLCK) return Presence::running;
  ::unlink(path.c_str());
  return Presence::gone;
}

}  // namespace Platform::CheckIns
