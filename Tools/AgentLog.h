// AgentLog: what the agent's own log tells of its requests, from the journal or from the file that
// its standard error goes to.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

// A line of the log. Others than these, and lines that are damaged, are nothing.
struct LogEvent {
  enum class Kind { start, registration, retrieval, removal };
  Kind kind;
  Platform::Text identifier;  // empty for a start
  std::chrono::sys_time<std::chrono::microseconds> time;
};

// On one thread.
class AgentLog {
 public:
  // The log in `path`, a file or a folder of journal files; without one, the machine's journal.
  // Null when it cannot be read, or is a journal and nothing of the agent is in it; `problem` is
  // then a sentence.
  static std::unique_ptr<AgentLog> open(const std::optional<std::string>& path,
                                        std::string& problem);
  virtual ~AgentLog() = default;

  // Whether there is any line of the agent's. It leaves off anywhere.
  virtual bool isOfUse() = 0;

  // The identifiers in the registrations since the agent last started, each once, in order.
  std::vector<Platform::Text> registered();

  // From here on `next` gives what is written after this call.
  virtual void skipToEnd() = 0;
  // None when there is no more for now.
  virtual std::optional<LogEvent> next() = 0;
  // Returns when there may be more, or the time is over.
  virtual void wait(std::chrono::microseconds patience) = 0;

 protected:
  // Sets out from the agent's last start, or from some time before.
  virtual void rewind() = 0;
};

}  // namespace Gantrel_Sync_Helper
