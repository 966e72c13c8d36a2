// AgentLog: what the agent's own log tells of its requests, from the journal or from the file that
// its standard error goes to.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Platform/Runtime/NSDate.h"
#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

// A line of the log. Others than these, and lines that are damaged, are nothing.
struct LogEvent {
  enum class Kind { start, registration, retrieval, removal };
  Kind kind;
  Platform::Text identifier;  // empty for a start
  Platform::NSDate time;
};

// On one thread.
class AgentLog {
 public:
  // The log in `path`, a file or a folder of journal files; without one, the machine's journal.
  // Null for a journal in which nothing of the agent can be read. Ends the process when there is
  // no such path.
  static std::unique_ptr<AgentLog> find(const std::optional<std::string>& path);
  // The same, with a sentence and the end of the process for null.
  static std::unique_ptr<AgentLog> require(const std::optional<std::string>& path);
  virtual ~AgentLog() = default;

  // The identifiers in the registrations since the agent last started; none when the log tells
  // nothing of the agent. It leaves off anywhere.
  virtual std::optional<std::set<Platform::Text>> registered() = 0;

  // From here on `next` gives what is written after this call.
  virtual void skipToEnd() = 0;
  // None when there is no more for now.
  virtual std::optional<LogEvent> next() = 0;
  // Returns when there may be more, or the time is over.
  virtual void wait(std::chrono::microseconds patience) = 0;
};

}  // namespace Gantrel_Sync_Helper
