#include "Benchmarks/Broker/FloorLog.h"

#include <unistd.h>

#include <ctime>
#include <thread>

#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {
namespace {

using namespace std::chrono;

// As the agent does: bounds, and lines that come while the writer gathers share a call.
constexpr std::size_t mostWaiting = 4 << 20;  // bytes
constexpr std::size_t writeSize = 64 << 10;
constexpr auto gatherTime = 10ms;

constexpr std::string_view place =
    " (Benchmarks/Broker:100 the fair floor's line is as long as the agent's)\n";

void writeOut(std::string& lines) {
  for (std::string_view rest = lines; !rest.empty();) {
    const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0) fail("cannot write the log");
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  lines.clear();
}

// Without a branch in the loop, so that it is done many bytes at once.
bool isPlain(std::string_view text) {
  bool isPlain = true;
  for (const char c : text) isPlain &= c >= ' ' && c != 0x7F;
  return isPlain;
}

void appendEscaped(std::string& out, std::string_view text) {
  if (isPlain(text)) {
    out += text;
    return;
  }
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte != 0x7F) {
      out += c;
    } else {
      (out += "\\x") += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    }
  }
}

class Formatter {
 public:
  void append(std::string& out, system_clock::time_point time, std::string_view text,
              std::string_view identifier) {
    const auto second = floor<seconds>(time);
    if (second != second_) {
      second_ = second;
      const std::time_t calendarTime = system_clock::to_time_t(second);
      std::tm utc{};
      ::gmtime_r(&calendarTime, &utc);
      std::strftime(secondText_, sizeof secondText_, "%Y-%m-%dT%H:%M:%S", &utc);
    }
    char fraction[] = ".000000Z ";
    auto micros = duration_cast<microseconds>(time - second).count();
    for (char* digit = fraction + 6; micros != 0; micros /= 10) {
      *digit-- = static_cast<char>('0' + micros % 10);
    }
    ((out += secondText_) += fraction) += text;
    appendEscaped(out, identifier);
    out += place;
  }

 private:
  sys_seconds second_{};
  char secondText_[32] = "1970-01-01T00:00:00";
};

}  // namespace

FloorLog::FloorLog() {
  std::thread([this] { writeForever(); }).detach();
}

void FloorLog::add(std::string_view text, std::string_view identifier) {
  const auto now = system_clock::now();
  const std::lock_guard lock(mutex_);
  if (waiting_.dropped != 0 || (!waiting_.records.empty() &&
                                waiting_.identifiers.size() + identifier.size() > mostWaiting)) {
    ++waiting_.dropped;
    return;
  }
  waiting_.identifiers += identifier;
  waiting_.records.push_back({now, text, identifier.size()});
  if (writerRests_) lineIsThere_.notify_one();
}

void FloorLog::writeForever() {
  Formatter formatter;
  Batch batch;
  std::string lines;
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      writerRests_ = true;
      lineIsThere_.wait(lock, [this] { return !waiting_.records.empty(); });
      writerRests_ = false;
      std::swap(batch, waiting_);
    }
    std::string_view identifiers = batch.identifiers;
    for (const Record& record : batch.records) {
      formatter.append(lines, record.time, record.text, identifiers.substr(0, record.length));
      identifiers.remove_prefix(record.length);
      if (lines.size() >= writeSize) writeOut(lines);
    }
    if (batch.dropped != 0) {
      formatter.append(lines, system_clock::now(), std::to_string(batch.dropped),
                       " log lines dropped");
    }
    writeOut(lines);
    batch.identifiers.clear();
    batch.records.clear();
    batch.dropped = 0;
    std::this_thread::sleep_for(gatherTime);
  }
}

}  // namespace Benchmark
