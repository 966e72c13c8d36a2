#include "Platform/Workspace/LogExcerpt.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

constexpr std::size_t sizeLimit = 8 << 20;  // bytes

using Journal = std::unique_ptr<sd_journal, decltype(&sd_journal_close)>;

Journal openJournal(const std::string& folder) {
  sd_journal* journal = nullptr;
  const int error = folder.empty() ? sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY)
                                   : sd_journal_open_directory(&journal, folder.c_str(), 0);
  return Journal(error < 0 ? nullptr : journal, &sd_journal_close);
}

bool match(sd_journal* journal, const std::string& field) {
  return sd_journal_add_match(journal, field.data(), field.size()) >= 0;
}

// The content of "NAME=CONTENT".
std::string_view content(const void* data, std::size_t length) {
  const std::string_view field(static_cast<const char*>(data), length);
  const std::size_t sign = field.find('=');
  return sign == field.npos ? std::string_view() : field.substr(sign + 1);
}

// Valid until the next field is asked for; empty when the line has no such field.
std::string_view field(sd_journal* journal, const char* name) {
  const void* data = nullptr;
  std::size_t length = 0;
  if (sd_journal_get_data(journal, name, &data, &length) < 0) return {};
  return content(data, length);
}

bool isOneOf(const std::vector<Text>& bundleIdentifiers, std::string_view executable) {
  const std::optional<Text> identifier =
      NSBundle::bundleOfExecutable(std::string(executable)).bundleIdentifier();
  return identifier && std::find(bundleIdentifiers.begin(), bundleIdentifiers.end(), *identifier) !=
                           bundleIdentifiers.end();
}

// Narrows the journal to the lines of this user from the bundles; false when there are none.
bool narrow(sd_journal* journal, const std::vector<Text>& bundleIdentifiers) {
  std::vector<std::string> executables;
  if (sd_journal_query_unique(journal, "_EXE") < 0) return false;
  const void* data = nullptr;
  std::size_t length = 0;
  while (sd_journal_enumerate_available_unique(journal, &data, &length) > 0) {
    if (isOneOf(bundleIdentifiers, content(data, length))) {
      executables.emplace_back(static_cast<const char*>(data), length);
    }
  }
  // Matches of one field are alternatives; those of different fields must all hold.
  return !executables.empty() && match(journal, "_UID=" + std::to_string(::getuid())) &&
         std::all_of(
             executables.begin(), executables.end(),
             [journal](const std::string& executable) { return match(journal, executable); });
}

// The line that the journal stands at.
std::string line(sd_journal* journal, std::uint64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1'000'000);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char time[32];
  const std::size_t length = std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &utc);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06uZ ",
                static_cast<unsigned>(microseconds % 1'000'000));
  std::string text(time, length);
  text.append(fraction).append(escaped(field(journal, "SYSLOG_IDENTIFIER")));
  text.append("[").append(escaped(field(journal, "_PID"))).append("] ");
  text.append(escaped(field(journal, "MESSAGE")));
  if (const std::string file = escaped(field(journal, "CODE_FILE")); !file.empty()) {
    text.append(" (").append(file).append(":").append(escaped(field(journal, "CODE_LINE")));
    text.append(" ").append(escaped(field(journal, "CODE_FUNC"))).append(")");
  }
  return text + "\n";
}

// The lines since `age` ago, oldest first.
std::vector<std::string> lines(sd_journal* journal, std::chrono::seconds age) {
  std::vector<std::string> newestFirst;
  const auto since = std::chrono::duration_cast<std::chrono::microseconds>(
      (std::chrono::system_clock::now() - age).time_since_epoch());
  std::size_t size = 0;
  if (sd_journal_seek_tail(journal) < 0) return {};
  while (sd_journal_previous(journal) > 0) {
    std::uint64_t time = 0;
    if (sd_journal_get_realtime_usec(journal, &time) < 0) continue;
    if (std::cmp_less(time, since.count())) break;
    std::string text = line(journal, time);
    size += text.size();
    if (size > sizeLimit) break;
    newestFirst.push_back(std::move(text));
  }
  return {newestFirst.rbegin(), newestFirst.rend()};
}

// $XDG_STATE_HOME, else ~/.local/state; a relative path does not count.
std::optional<std::string> stateHome() {
  const char* const given = std::getenv("XDG_STATE_HOME");
  if (given && given[0] == '/') return given;
  const char* const home = std::getenv("HOME");
  if (home && home[0] == '/') return std::string(home) + "/.local/state";
  return std::nullopt;
}

// The folder `name` in `parent`, made when missing: the user's own, and nobody else's to write in.
UniqueFd ownFolder(const std::string& parent, const char* name) {
  std::error_code error;
  std::filesystem::create_directories(parent, error);
  const UniqueFd outer(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  ::mkdirat(outer.get(), name, 0700);
  UniqueFd folder(::openat(outer.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder.isValid() || ::fstat(folder.get(), &status) != 0 || status.st_uid != ::geteuid() ||
      (status.st_mode & 022) != 0) {
    return UniqueFd();
  }
  return folder;
}

bool write(const UniqueFd& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

std::optional<std::string> writeLogExcerpt(const std::vector<Text>& bundleIdentifiers,
                                           std::chrono::seconds age,
                                           const std::string& journalFolder) {
  constexpr char folderName[] = "gantrel";
  constexpr char fileName[] = "log.txt";
  const Journal journal = openJournal(journalFolder);
  if (!journal || !narrow(journal.get(), bundleIdentifiers)) return std::nullopt;
  const std::vector<std::string> gathered = lines(journal.get(), age);
  if (gathered.empty()) return std::nullopt;

  const std::optional<std::string> parent = stateHome();
  if (!parent) return std::nullopt;
  const UniqueFd folder = ownFolder(*parent, folderName);
  if (!folder.isValid()) return std::nullopt;
  const std::string unfinished =
      std::string(fileName) + "." + std::to_string(::getpid()) + "." + std::to_string(::gettid());
  ::unlinkat(folder.get(), unfinished.c_str(), 0);  // of a process before us that had our number
  const UniqueFd file(::openat(folder.get(), unfinished.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.isValid()) return std::nullopt;
  const bool written = std::all_of(gathered.begin(), gathered.end(),
                                   [&file](const std::string& text) { return write(file, text); });
  if (!written || ::renameat(folder.get(), unfinished.c_str(), folder.get(), fileName) != 0) {
    ::unlinkat(folder.get(), unfinished.c_str(), 0);
    return std::nullopt;
  }
  return *parent + "/" + folderName + "/" + fileName;
}

}  // namespace Platform
