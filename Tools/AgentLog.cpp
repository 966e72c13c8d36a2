#include "Tools/AgentLog.h"

#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Tools/Json.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

// Where the lines say that they come from.
constexpr std::string_view source = "GantrelAgent/Agent";

// The line before the start's, "Agent init", may also be of a second agent, which ends at once.
constexpr std::string_view startFunction = "resume()";

struct Form {
  LogEvent::Kind kind;
  std::string_view function;
  std::string_view message;  // the identifier follows
};
constexpr Form forms[] = {
    {LogEvent::Kind::start, startFunction, "Agent resume"},
    {LogEvent::Kind::registration, "registerListenerEndpoint(_:forIdentifier:completionHandler:)",
     "registerListenerEndpoint forIdentifier="},
    {LogEvent::Kind::retrieval, "retrieveListenerEndpoint(_:completionHandler:)",
     "retrieveListenerEndpoint forIdentifier="},
    {LogEvent::Kind::removal, "removeListenerEndpoint", "removeListenerEndpoint forIdentifier="},
};

std::optional<LogEvent> eventFromMessage(std::string message, std::string_view function) {
  for (const Form& form : forms) {
    if (form.function != function || !message.starts_with(form.message)) continue;
    auto identifier = Text::fromUtf8(message.substr(form.message.size()));
    if (!identifier) return std::nullopt;
    return LogEvent{form.kind, *std::move(identifier), {}};
  }
  return std::nullopt;
}

std::optional<LogEvent> eventFromLine(std::string_view line) {
  // An identifier may hold anything, also what looks like a place: the last one counts.
  const std::size_t time = line.find(' ');
  const std::size_t place = line.rfind(" (" + std::string(source) + ":");
  if (time == line.npos || place == line.npos || place < time || !line.ends_with(')')) return {};
  const std::size_t function = line.find(' ', place + 1);
  const auto message = unescaped(line.substr(time + 1, place - time - 1));
  const auto date = dateFromText(std::string(line.substr(0, time)));
  if (function == line.npos || !message || !date) return std::nullopt;
  auto event = eventFromMessage(*message, line.substr(function + 1, line.size() - function - 2));
  if (event) {
    const std::chrono::duration<double> sinceEpoch(date->timeIntervalSince1970);
    event->time = std::chrono::sys_time<std::chrono::microseconds>(
        std::chrono::round<std::chrono::microseconds>(sinceEpoch));
  }
  return event;
}

class JournalLog final : public AgentLog {
 public:
  explicit JournalLog(sd_journal* journal) : journal_(journal, &sd_journal_close) {
    sd_journal_set_data_threshold(journal, 0);  // whole lines
    match({});
  }

  bool isOfUse() override {
    return sd_journal_seek_tail(journal_.get()) >= 0 && sd_journal_previous(journal_.get()) > 0;
  }

  void skipToEnd() override {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto since = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    sd_journal_seek_realtime_usec(journal_.get(), static_cast<std::uint64_t>(since));
  }

  std::optional<LogEvent> next() override {
    while (sd_journal_next(journal_.get()) > 0) {
      std::uint64_t time = 0;
      auto event = eventFromMessage(field("MESSAGE"), field("CODE_FUNC"));
      if (!event || sd_journal_get_realtime_usec(journal_.get(), &time) < 0) continue;
      event->time += std::chrono::microseconds(time);
      return event;
    }
    return std::nullopt;
  }

  void wait(std::chrono::microseconds patience) override {
    sd_journal_wait(journal_.get(), static_cast<std::uint64_t>(patience.count()));
  }

 protected:
  void rewind() override {
    match(startFunction);
    char* cursor = nullptr;
    const bool hasStart = isOfUse() && sd_journal_get_cursor(journal_.get(), &cursor) >= 0;
    match({});
    if (hasStart) {
      sd_journal_seek_cursor(journal_.get(), cursor);
    } else {
      sd_journal_seek_head(journal_.get());
    }
    std::free(cursor);
  }

 private:
  // Narrows it to the lines of this user's agents, and of the function, if one is given.
  void match(std::string_view function) {
    sd_journal_flush_matches(journal_.get());
    std::vector<std::string> fields = {"_UID=" + std::to_string(::getuid()), "_COMM=GantrelAgent",
                                       "CODE_FILE=" + std::string(source)};
    if (!function.empty()) fields.push_back("CODE_FUNC=" + std::string(function));
    for (const auto& field : fields) {
      sd_journal_add_match(journal_.get(), field.data(), field.size());
    }
  }

  std::string field(const std::string& name) {
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(journal_.get(), name.c_str(), &data, &length) < 0) return {};
    return std::string(static_cast<const char*>(data), length).substr(name.size() + 1);
  }

  const std::unique_ptr<sd_journal, decltype(&sd_journal_close)> journal_;
};

class FileLog final : public AgentLog {
 public:
  explicit FileLog(const std::string& path) : path_(path), file_(path) {}

  bool isOfUse() override {
    std::string line;
    while (std::getline(file_, line) && line.find(source) == line.npos) {
    }
    const bool isFound = !file_.fail();
    file_.clear();
    return isFound;
  }

  void skipToEnd() override { file_.seekg(0, std::ios::end); }

  std::optional<LogEvent> next() override {
    std::error_code error;
    if (std::filesystem::file_size(path_, error) < static_cast<std::uintmax_t>(file_.tellg()))
      rewind();  // emptied
    for (std::string line;;) {
      const auto begin = file_.tellg();
      if (!std::getline(file_, line) || file_.eof()) {  // a line that is not yet whole is for later
        file_.clear();
        file_.seekg(begin);
        return std::nullopt;
      }
      if (const auto event = eventFromLine(line)) return event;
    }
  }

  void wait(std::chrono::microseconds patience) override {
    constexpr std::chrono::microseconds untilLookedAgain = std::chrono::milliseconds(100);
    std::this_thread::sleep_for(std::min(patience, untilLookedAgain));
  }

 protected:
  void rewind() override { file_.seekg(0); }

 private:
  const std::string path_;
  std::ifstream file_;
};

}  // namespace

std::unique_ptr<AgentLog> AgentLog::open(const std::optional<std::string>& path,
                                         std::string& problem) {
  if (path && !std::ifstream(*path)) {
    problem = "the log " + escaped(*path) + " cannot be read: " + std::strerror(errno) + ".";
    return nullptr;
  }
  if (path && !std::filesystem::is_directory(*path)) return std::make_unique<FileLog>(*path);
  sd_journal* journal = nullptr;
  if (path ? sd_journal_open_directory(&journal, path->c_str(), 0) >= 0
           : sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) >= 0) {
    auto log = std::make_unique<JournalLog>(journal);
    if (log->isOfUse()) return log;
  }
  problem =
      "no line of the agent is in the journal, or this user may not read it: for an agent that "
      "writes elsewhere, give the file with --log FILE.";
  return nullptr;
}

std::vector<Text> AgentLog::registered() {
  std::vector<Text> identifiers;
  std::set<Text> known;
  rewind();
  while (const auto event = next()) {
    if (event->kind == LogEvent::Kind::start) {
      identifiers.clear();
      known.clear();
    } else if (event->kind == LogEvent::Kind::registration &&
               known.insert(event->identifier).second) {
      identifiers.push_back(event->identifier);
    }
  }
  return identifiers;
}

}  // namespace Gantrel_Sync_Helper
