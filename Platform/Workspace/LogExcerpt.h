// LogExcerpt: what the user's own applications wrote to the journal, gathered into a file that can
// be sent to somebody.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/Text.h"

namespace Platform {

// Writes the lines of the time since `age` ago to $XDG_STATE_HOME (else
// ~/.local/state)/gantrel/log.txt and gives the file's path. The folder and the file are the user's
// alone; the file is written under another name first, so that nobody ever reads half of one.
//
// The lines are those that this user's processes wrote from the executable of a bundle with one of
// the identifiers: the journal itself vouches for user and executable, so that neither a program's
// name nor the place of the installation matters, and no other program's line can pass as one of
// these. Each is "TIME NAME[PROCESS] MESSAGE (FILE:LINE FUNCTION)", escaped, the oldest first.
// Beyond eight megabytes only the newest are kept.
//
// None when there is no such line (also for want of a journal that the user may read), or the file
// cannot be written. Reads the journal of the machine, or the journal files in `journalFolder` if
// that is not empty. Any thread.
std::optional<std::string> writeLogExcerpt(const std::vector<Text>& bundleIdentifiers,
                                           std::chrono::seconds age,
                                           const std::string& journalFolder = {});

}  // namespace Platform
