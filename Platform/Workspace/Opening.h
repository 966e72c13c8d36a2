// Opening things for the user with the desktop's own openers, xdg-open and xdg-email: they know
// which browser and which mail program the user wants.
//
// An opener is started directly, without a shell, in a session of its own and without our
// descriptors: it must not end with the terminal that we were started from, nor write to it.
//
// Opened means that the opener ended well, or has run for two seconds without failing: some stay as
// long as the browser that they started. Such a one is left to run; a thread waits for its end, so
// that nothing of it remains in the table of processes.
#pragma once

#include <optional>
#include <string>

namespace Platform {

struct Mail {
  std::string recipient;
  std::string subject;
  std::optional<std::string> attachment;  // absolute path
};

// Both wait at most two seconds; false when there is no opener, it cannot be started, or it failed.
// Any thread. A process that ignores SIGCHLD, as whoever started it may have made it, does so no
// longer afterwards: how an opener ends could not be seen.
bool openAddress(const std::string& address);
bool openMail(const Mail& mail);

// Which opener is missing on this machine, and where to get it, as a sentence for people without a
// final full stop; empty when none is, so that it is an opener that failed. Any thread.
std::string missingOpener();

}  // namespace Platform
