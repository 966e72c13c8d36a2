#include "Platform/Runtime/Logger.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
// Each line has a place of its own; without this the header would add the place in this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/Runtime/BackgroundThread.h"
#include "Platform/Runtime/Escaped.h"

namespace Platform {
namespace {

constexpr std::size_t bufferLimit = 4 << 20;  // bytes of waiting messages
constexpr std::size_t bufferKept = 8 << 20;   // what a drained buffer may keep for the next lines
constexpr std::size_t writeSize = 64 << 10;   // bytes that go out in one call
constexpr auto gatherTime = std::chrono::milliseconds(10);
constexpr auto flushPatience = std::chrono::seconds(1);

void clearAndKeepLittle(std::string& buffer) {
  buffer.clear();
  // Assigning an empty string would keep it all.
  if (buffer.capacity() > bufferKept) buffer.shrink_to_fit();
}

struct Record {
  std::chrono::system_clock::time_point time;
  std::size_t length;  // of the message in Batch::messages
  std::string_view sourceFile;
  std::string_view function;
  unsigned line;
};

struct Batch {
  std::string messages;  // one after the other, without separator
  std::vector<Record> records;
  std::uint64_t dropped = 0;  // lines lost after the last record

  void clear() {
    clearAndKeepLittle(messages);
    records.clear();
    dropped = 0;
  }
};

// $JOURNAL_STREAM names the device and inode of the journal's stream, see systemd.exec(5).
bool standardErrorIsJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0;
  unsigned long long inode = 0;
  struct stat status {};
  return stream && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
         ::fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd writable{STDERR_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return;  // nobody is there to be told
    }
  }
}

class LineFormatter {
 public:
  void append(std::string& out, const Record& record, std::string_view message) {
    const auto sinceEpoch = record.time.time_since_epoch();
    const auto second = std::chrono::floor<std::chrono::seconds>(sinceEpoch).count();
    if (second != second_) {
      second_ = second;
      const auto calendarTime = static_cast<std::time_t>(second);
      std::tm utc{};
      ::gmtime_r(&calendarTime, &utc);
      std::strftime(secondText_, sizeof secondText_, "%Y-%m-%dT%H:%M:%S", &utc);
    }
    auto micros = std::chrono::floor<std::chrono::microseconds>(sinceEpoch).count() % 1'000'000;
    char fraction[] = ".000000Z ";
    for (char* digit = fraction + 6; micros != 0; micros /= 10) {
      *digit-- = static_cast<char>('0' + micros % 10);
    }
    out.append(secondText_).append(fraction);
    appendEscaped(out, message);
    out.append(placeText(record));
  }

 private:
  const std::string& placeText(const Record& record) {
    // A place is literals, and there are few: where they lie tells them apart.
    std::string& text =
        placeTexts_[{record.sourceFile.data(), record.function.data(), record.line}];
    if (text.empty()) {
      text.append(" (").append(record.sourceFile).append(":").append(std::to_string(record.line));
      text.append(" ").append(record.function).append(")\n");
    }
    return text;
  }

  std::int64_t second_ = -1;
  char secondText_[32] = "";
  std::map<std::tuple<const char*, const char*, unsigned>, std::string> placeTexts_;
};

void writeToJournal(const Record& record, std::string_view message) {
  std::string fields[] = {
      std::string("MESSAGE=").append(message),
      std::string("PRIORITY=6"),
      std::string("CODE_FILE=").append(record.sourceFile),
      std::string("CODE_FUNC=").append(record.function),
      "CODE_LINE=" + std::to_string(record.line),
  };
  iovec vectors[std::size(fields)];
  for (std::size_t i = 0; i < std::size(fields); ++i) {
    vectors[i] = {fields[i].data(), fields[i].size()};
  }
  sd_journal_sendv(vectors, static_cast<int>(std::size(vectors)));
}

// Cuts a batch into its lines; `write` is called with each record and its message.
template <class Write>
void forEachLine(const Batch& batch, Write write) {
  std::string_view rest = batch.messages;
  for (const Record& record : batch.records) {
    write(record, rest.substr(0, record.length));
    rest.remove_prefix(record.length);
  }
  if (batch.dropped != 0) {
    const std::string message = std::to_string(batch.dropped) + " log lines dropped";
    write(Record{std::chrono::system_clock::now(), message.size(), "Platform/Runtime/Logger",
                 "info", 0},
          message);
  }
}

}  // namespace

struct Logger::State {
  std::mutex mutex;
  std::condition_variable workToDo;
  std::condition_variable written;
  // Protected by mutex:
  Batch waiting;
  bool writerStarted = false;
  bool writerRests = false;  // waits for a line; false while it writes or gathers
  bool flushWanted = false;
  bool writing = false;

  void writeForever();
};

void Logger::State::writeForever() {
  const bool toJournal = standardErrorIsJournal();
  LineFormatter formatter;
  Batch batch;
  std::string text;
  std::unique_lock lock(mutex);
  for (;;) {
    writerRests = true;
    workToDo.wait(lock, [this] { return !waiting.records.empty() || waiting.dropped != 0; });
    writerRests = false;
    std::swap(batch, waiting);
    writing = true;
    lock.unlock();
    if (toJournal) {
      forEachLine(batch, writeToJournal);
    } else {
      forEachLine(batch, [&](const Record& record, std::string_view message) {
        formatter.append(text, record, message);
        if (text.size() >= writeSize) {
          writeAll(text);
          clearAndKeepLittle(text);
        }
      });
      writeAll(text);
      clearAndKeepLittle(text);
    }
    batch.clear();
    lock.lock();
    writing = false;
    written.notify_all();
    // Lines that come now wait for each other, so that a busy process pays for a batch, not a line.
    workToDo.wait_for(lock, gatherTime, [this] { return flushWanted; });
  }
}

Logger::Logger() : state_(new State) {}

Logger& Logger::sharedInstance() {
  static Logger* const instance = [] {
    std::atexit([] { sharedInstance().flush(); });
    return new Logger;
  }();
  return *instance;
}

void Logger::info(const Message& message, std::string_view sourceFile, std::string_view function,
                  unsigned line) {
  const auto now = std::chrono::system_clock::now();
  const std::lock_guard lock(state_->mutex);
  Batch& waiting = state_->waiting;
  if (waiting.dropped != 0 ||
      (!waiting.records.empty() && waiting.messages.size() + message.size() > bufferLimit)) {
    ++waiting.dropped;
    return;
  }
  waiting.messages.append(message.text).append(message.value);
  waiting.records.push_back({now, message.size(), sourceFile, function, line});
  if (!state_->writerStarted) {
    state_->writerStarted =
        startBackgroundThread("gantrel-log", [state = state_] { state->writeForever(); });
  }
  if (state_->writerRests) state_->workToDo.notify_one();
}

void Logger::flush() {
  std::unique_lock lock(state_->mutex);
  state_->flushWanted = true;
  state_->workToDo.notify_one();
  state_->written.wait_for(lock, flushPatience, [this] {
    return state_->waiting.records.empty() && state_->waiting.dropped == 0 && !state_->writing;
  });
  state_->flushWanted = false;
}

}  // namespace Platform
