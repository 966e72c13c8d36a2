// The fair floor's log: a line for each request, of the agent's form and length, to standard error,
// written by a thread of its own. A request pays for a clock, a lock and a copy; the rest is the
// writer's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Benchmark {

class FloorLog {
 public:
  FloorLog();  // starts the writer, which never ends

  // Any thread. `text` is a literal.
  void add(std::string_view text, std::string_view identifier);

 private:
  struct Record {
    std::chrono::system_clock::time_point time;
    std::string_view text;
    std::size_t length;  // of the identifier in Batch::identifiers
  };
  struct Batch {
    std::string identifiers;  // one after the other
    std::vector<Record> records;
    std::uint64_t dropped = 0;  // lines for which there was no room, after the last record
  };

  void writeForever();

  std::mutex mutex_;
  std::condition_variable lineIsThere_;
  // Protected by mutex_:
  Batch waiting_;
  bool writerRests_ = false;
};

}  // namespace Benchmark
