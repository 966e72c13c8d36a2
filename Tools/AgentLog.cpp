#include "Tools/AgentLog.h"

#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Tools/Json.h"
#include "Tools/Terminal.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// Where the lines say that they come from.
const std::string source = "GantrelAgent/Agent";

// The line before the start's, "Agent init", may also be of a second agent, which ends at once.
constexpr std::pair<std::string_view, LogEvent::Kind> beginnings[] = {
    {"Agent resume", LogEvent::Kind::start},
    {"registerListenerEndpoint forIdentifier=", LogEvent::Kind::registration},
    {"retrieveListenerEndpoint forIdentifier=", LogEvent::Kind::retrieval},
    {"removeListenerEndpoint forIdentifier=", LogEvent::Kind::removal},
};

std::optional<LogEvent> eventFromMessage(const std::string& message, NSDate time) {
  for (const auto& [beginning, kind] : beginnings) {
    if (!message.starts_with(beginning)) continue;
    auto identifier = Text::fromUtf8(message.substr(beginning.size()));
    if (identifier) return LogEvent{kind, *std::move(identifier), time};
  }
  return std::nullopt;
}

std::optional<LogEvent> eventFromLine(std::string_view line) {
  // Whoever does not append leaves a hole in a file that has been emptied since.
  line.remove_prefix(std::min(line.find_first_not_of('\0'), line.size()));
  // An identifier may hold anything, also what looks like a place: the last one counts.
  const std::size_t time = line.find(' ');
  const std::size_t place = line.rfind(" (" + source + ":");
  if (place == line.npos || place < time || !line.ends_with(')')) return std::nullopt;
  const auto date = dateFromText(std::string(line.substr(0, time)));
  const auto message = unescaped(line.substr(time + 1, place - time - 1));
  return date && message ? eventFromMessage(*message, *date) : std::nullopt;
}

class JournalLog final : public AgentLog {
 public:
  // Null when nothing of this user's agents is in it.
  static std::unique_ptr<AgentLog> of(sd_journal* journal) {
    std::unique_ptr<JournalLog> log(new JournalLog(journal));
    sd_journal_set_data_threshold(journal, 0);  // whole lines
    for (const std::string& field : {"_UID=" + std::to_string(::getuid()),
                                     std::string("_COMM=GantrelAgent"), "CODE_FILE=" + source}) {
      sd_journal_add_match(journal, field.data(), field.size());
    }
    sd_journal_seek_tail(journal);
    return sd_journal_previous(journal) > 0 ? std::move(log) : nullptr;
  }

  std::optional<std::set<Text>> registered() override {
    std::set<Text> identifiers;
    sd_journal_seek_tail(journal_.get());
    while (const auto event = eventAfter(&sd_journal_previous)) {
      if (event->kind == LogEvent::Kind::start) break;
      if (event->kind == LogEvent::Kind::registration) identifiers.insert(event->identifier);
    }
    return identifiers;
  }

  void skipToEnd() override {
    sd_journal_seek_tail(journal_.get());
    sd_journal_previous(journal_.get());
  }

  std::optional<LogEvent> next() override { return eventAfter(&sd_journal_next); }

  void wait(std::chrono::microseconds patience) override {
    sd_journal_wait(journal_.get(), static_cast<std::uint64_t>(patience.count()));
  }

 private:
  explicit JournalLog(sd_journal* journal) : journal_(journal, &sd_journal_close) {}

  std::optional<LogEvent> eventAfter(int (*step)(sd_journal*)) {
    constexpr std::string_view name = "MESSAGE=";
    while (step(journal_.get()) > 0) {
      const void* data = nullptr;
      std::size_t length = 0;
      std::uint64_t time = 0;
      if (sd_journal_get_data(journal_.get(), "MESSAGE", &data, &length) < 0) continue;
      if (sd_journal_get_realtime_usec(journal_.get(), &time) < 0) continue;
      const std::string message = std::string(static_cast<const char*>(data), length);
      const NSDate date{static_cast<double>(time) / std::micro::den};
      if (auto event = eventFromMessage(message.substr(name.size()), date)) return event;
    }
    return std::nullopt;
  }

  const std::unique_ptr<sd_journal, decltype(&sd_journal_close)> journal_;
};

class FileLog final : public AgentLog {
 public:
  explicit FileLog(const std::string& path) : path_(path) { open(); }

  std::optional<std::set<Text>> registered() override {
    std::optional<std::set<Text>> identifiers;
    file_.seekg(0);
    while (const auto event = next()) {
      if (!identifiers || event->kind == LogEvent::Kind::start) identifiers.emplace();
      if (event->kind == LogEvent::Kind::registration) identifiers->insert(event->identifier);
    }
    return identifiers;
  }

  void skipToEnd() override { file_.seekg(0, std::ios::end); }

  std::optional<LogEvent> next() override {
    bool isOther = false;
    for (std::string line;;) {
      const auto begin = file_.tellg();
      if (std::getline(file_, line) && !file_.eof()) {
        if (auto event = eventFromLine(line)) return event;
        continue;
      }
      file_.clear();
      file_.seekg(begin);  // a line that is not yet whole is for later
      // It may have been emptied, or there may be another by its name, which has all that follows.
      struct stat now {};
      if (::stat(path_.c_str(), &now) != 0) return std::nullopt;
      if (now.st_dev != opened_.st_dev || now.st_ino != opened_.st_ino) {
        // Once more to the end of the old one: it may have been written to until it was moved.
        if (std::exchange(isOther, true)) open();
      } else if (now.st_size < begin) {
        file_.seekg(0);
      } else {
        return std::nullopt;
      }
    }
  }

  void wait(std::chrono::microseconds patience) override {
    constexpr std::chrono::microseconds untilLookedAgain = std::chrono::milliseconds(100);
    std::this_thread::sleep_for(std::min(patience, untilLookedAgain));
  }

 private:
  // Which file it is is looked at first: what is put in its place meanwhile is opened once more.
  void open() {
    ::stat(path_.c_str(), &opened_);
    file_ = std::ifstream(path_);
  }

  const std::string path_;
  std::ifstream file_;
  struct stat opened_ {};
};

}  // namespace

std::unique_ptr<AgentLog> AgentLog::find(const std::optional<std::string>& path) {
  std::error_code missing;
  const auto kind =
      path ? std::filesystem::status(*path, missing).type() : std::filesystem::file_type::directory;
  const bool isFile = kind == std::filesystem::file_type::regular;
  if (!missing && !isFile && kind != std::filesystem::file_type::directory) {
    fail(Status::noLog, "the log " + escaped(*path) + " is neither a file nor a folder.");
  }
  if (path && !std::ifstream(*path)) {
    fail(Status::noLog,
         "the log " + escaped(*path) + " cannot be read: " + std::strerror(errno) + ".");
  }
  if (isFile) return std::make_unique<FileLog>(*path);
  sd_journal* journal = nullptr;
  const int error = path ? sd_journal_open_directory(&journal, path->c_str(), 0)
                         : sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY);
  return error < 0 ? nullptr : JournalLog::of(journal);
}

std::unique_ptr<AgentLog> AgentLog::require(const std::optional<std::string>& path) {
  auto log = find(path);
  if (log) return log;
  if (path)
    fail(Status::noLog, "no line of the agent is in the journal of " + escaped(*path) + ".");
  fail(Status::noLog,
       "no line of the agent is in the journal, or this user may not read it: for an agent that "
       "writes elsewhere, give the file with --log FILE.");
}

}  // namespace Gantrel_Sync_Helper
