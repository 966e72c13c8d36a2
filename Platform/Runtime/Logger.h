// Logger: the product's log, one line a call.
//
// Whoever logs only appends to a buffer; a thread of the logger's own writes it out, so a slow or
// stuck destination never holds up a request. The buffer is bounded: when it is full, lines are
// dropped, and a later line says how many; so it does of lines that a full disk did not take. Lines
// written soon after one another go out together.
//
// Destination: the journal when standard error is connected to it, each line with CODE_FILE,
// CODE_FUNC and CODE_LINE; else standard error, as "TIME MESSAGE (FILE:LINE FUNCTION)" with control
// characters escaped and the time in UTC.
#pragma once

#include <string_view>

namespace Platform {

// All methods: any thread.
class Logger {
 public:
  // A fixed text with a value behind it, UTF-8. The value is copied into the logger's buffer: it
  // may be large, and a request should not wait for a copy more.
  struct Message {
    std::string_view text;
    std::string_view value = {};
  };

  // The one logger of the process. It is never destroyed: threads may log until the very end.
  static Logger& sharedInstance();

  // All texts but the value must live as long as the process, as literals do.
  void info(const Message& message, std::string_view sourceFile, std::string_view function,
            unsigned line);

  // Returns when all that was logged before is written, or after a second when the destination is
  // stuck. Called by the layer itself when the process ends by its own hand.
  void flush();

 private:
  Logger();
  ~Logger() = delete;

  struct State;
  State* const state_;
};

}  // namespace Platform
