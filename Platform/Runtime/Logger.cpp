#include "Platform/Runtime/Logger.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
// Each line has a place of its own; without this the header would add the place in this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Runtime/BackgroundThread.h"
#include "Platform/Runtime/Escaped.h"

namespace Platform {
namespace {

constexpr std::size_t bufferLimit = 8 << 20;  // bytes of waiting lines
constexpr std::size_t mostKept = 8 << 20;     // bytes that a drained buffer may keep for the next
constexpr std::size_t alwaysKept = 64 << 10;  // bytes that it keeps without having needed them
constexpr std::size_t writeSize = 64 << 10;   // bytes that go out in one call
constexpr auto gatherTime = std::chrono::milliseconds(10);
constexpr auto flushPatience = std::chrono::seconds(1);
constexpr auto restAfter = std::chrono::seconds(1);  // without a line

// Keeps room for about as much again, not for the longest line or burst there ever was.
template <class Buffer>
void clearForReuse(Buffer& buffer) {
  const std::size_t used = buffer.size();
  buffer.clear();
  const std::size_t kept = buffer.capacity() * sizeof(typename Buffer::value_type);
  const bool isFarTooLarge = kept > alwaysKept && buffer.capacity() > 4 * used;
  // Assigning an empty buffer would keep it all.
  if (isFarTooLarge || kept > mostKept) buffer.shrink_to_fit();
}

struct Record {
  std::chrono::system_clock::time_point time;
  std::string_view text;
  std::size_t length;  // of the value in Batch::values
  std::string_view sourceFile;
  std::string_view function;
  unsigned line;
};

struct Batch {
  std::string values;  // one after the other, without separator
  std::vector<Record> records;
  std::uint64_t dropped = 0;  // lines lost after the last record

  std::size_t size() const { return values.size() + records.size() * sizeof(Record); }
  void clear() {
    clearForReuse(values);
    clearForReuse(records);
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

// Gives what could not be written: nobody may be there any more, or the disk is full.
std::string_view writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd writable{STDERR_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      break;
    }
  }
  return bytes;
}

// Lines differ in their time and their value; what stands before and behind that is made once for
// each place in the code that logs. A place is literals, and there are few: where they lie tells
// them apart.
class LineFormatter {
 public:
  void append(std::string& out, const Record& record, std::string_view value) {
    Form& form = formOf(record);
    const auto sinceEpoch = record.time.time_since_epoch();
    const auto second = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    if (second.count() != form.second) setSecond(form, second.count());
    using std::chrono::microseconds;
    auto micros = static_cast<std::uint32_t>(
        std::chrono::duration_cast<microseconds>(sinceEpoch - second).count());
    char* const fraction = form.head.data() + secondLength;
    for (std::size_t i = fractionLength; i > 0; micros /= 100) {
      i -= 2;
      std::memcpy(fraction + i, twoDigits[micros % 100].data(), 2);
    }
    out.append(form.head);
    appendEscaped(out, value);
    out.append(form.tail);
  }

 private:
  static constexpr std::string_view noTime = "0000-00-00T00:00:00.000000Z ";
  static constexpr std::size_t secondLength = noTime.find('.') + 1;
  static constexpr std::size_t fractionLength = 6;
  static constexpr auto twoDigits = [] {
    std::array<std::array<char, 2>, 100> all{};
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i] = {static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
    }
    return all;
  }();

  struct Form {
    const char* sourceFile;
    const char* function;
    unsigned line;
    std::string_view text;
    std::string head = {};
    std::string tail = {};
    std::int64_t second = std::numeric_limits<std::int64_t>::min();  // that `head` shows
  };

  static void setSecond(Form& form, std::int64_t second) {
    form.second = second;
    const auto calendarTime = static_cast<std::time_t>(second);
    std::tm utc{};
    ::gmtime_r(&calendarTime, &utc);
    char text[40];
    form.head.replace(0, secondLength, text,
                      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", &utc));
  }

  Form& formOf(const Record& record) {
    const auto found = std::ranges::find_if(forms_, [&](const Form& form) {
      return form.line == record.line && form.function == record.function.data() &&
             form.sourceFile == record.sourceFile.data() &&
             form.text.data() == record.text.data() && form.text.size() == record.text.size();
    });
    if (found != forms_.end()) return *found;
    Form& form = forms_.emplace_back(
        Form{record.sourceFile.data(), record.function.data(), record.line, record.text});
    form.head.append(noTime).append(record.text);
    form.tail.append(" (").append(record.sourceFile).append(":");
    form.tail.append(std::to_string(record.line)).append(" ");
    form.tail.append(record.function).append(")\n");
    return form;
  }

  std::vector<Form> forms_;
};

// False when the journal did not take the line.
bool writeToJournal(const Record& record, std::string_view value) {
  std::string fields[] = {
      std::string("MESSAGE=").append(record.text).append(value),
      std::string("PRIORITY=6"),
      std::string("CODE_FILE=").append(record.sourceFile),
      std::string("CODE_FUNC=").append(record.function),
      "CODE_LINE=" + std::to_string(record.line),
  };
  iovec vectors[std::size(fields)];
  for (std::size_t i = 0; i < std::size(fields); ++i) {
    vectors[i] = {fields[i].data(), fields[i].size()};
  }
  return sd_journal_sendv(vectors, static_cast<int>(std::size(vectors))) >= 0;
}

// Where lines go. Lives on the writer's thread.
class Destination {
 public:
  void write(const Batch& batch) {
    tellOfDropped(std::exchange(lost_, 0));
    std::string_view rest = batch.values;
    for (const Record& record : batch.records) {
      writeLine(record, rest.substr(0, record.length));
      rest.remove_prefix(record.length);
    }
    tellOfDropped(batch.dropped);
    writeOut();
  }

  void rest() { clearForReuse(text_); }

 private:
  void tellOfDropped(std::uint64_t count) {
    if (count == 0) return;
    writeOut();
    const std::uint64_t lostBefore = lost_;
    const std::string value = std::to_string(count) + " log lines dropped";
    writeLine(
        {std::chrono::system_clock::now(), {}, value.size(), "Platform/Runtime/Logger", "info", 0},
        value);
    writeOut();
    // That line is lost itself: it is to be told later.
    if (lost_ != lostBefore) lost_ = lostBefore + count;
  }

  void writeLine(const Record& record, std::string_view value) {
    if (isJournal_) {
      if (!writeToJournal(record, value)) ++lost_;
      return;
    }
    formatter_.append(text_, record, value);
    if (text_.size() >= writeSize) writeOut();
  }

  void writeOut() {
    if (text_.empty()) return;
    std::string_view unwritten = text_;
    // What is left of a line that a full disk has cut must not swallow the next one.
    if (!lineIsCut_ || writeAll("\n").empty()) {
      unwritten = writeAll(text_);
      const std::size_t written = text_.size() - unwritten.size();
      lineIsCut_ = !unwritten.empty() && written != 0 && text_[written - 1] != '\n';
    }
    lost_ += static_cast<std::uint64_t>(std::count(unwritten.begin(), unwritten.end(), '\n'));
    clearForReuse(text_);
  }

  const bool isJournal_ = standardErrorIsJournal();
  LineFormatter formatter_;
  std::string text_;
  std::uint64_t lost_ = 0;  // lines that could not be written, and of which no line has told
  bool lineIsCut_ = false;
};

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
  Destination destination;
  Batch batch;
  std::unique_lock lock(mutex);
  for (;;) {
    writerRests = true;
    const auto hasWork = [this] { return !waiting.records.empty() || waiting.dropped != 0; };
    if (!workToDo.wait_for(lock, restAfter, hasWork)) {
      waiting.clear();
      batch.clear();
      destination.rest();
      workToDo.wait(lock, hasWork);
    }
    writerRests = false;
    std::swap(batch, waiting);
    writing = true;
    lock.unlock();
    destination.write(batch);
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
      (!waiting.records.empty() && waiting.size() + message.value.size() > bufferLimit)) {
    ++waiting.dropped;
    return;
  }
  waiting.values.append(message.value);
  waiting.records.push_back({now, message.text, message.value.size(), sourceFile, function, line});
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
