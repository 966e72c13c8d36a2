// Standard input, output and error, which a process may be started without, and whose readers may
// go.
#pragma once

namespace Platform {

// Opens /dev/null for each of the three that is closed: else the next files or sockets would get
// their numbers, and what is meant for people would go there. Writing to such a standard output
// fails, as it would to a closed one. First thing in `main`.
void openStandardStreams();

// From now on the process ends when nobody can read its standard output any more, as it would at
// the next line: by SIGPIPE, or with status 1 where that is ignored. For programs that may be
// silent for long. Any thread, once.
void endWhenNobodyReads();

// To be called when a write has found nobody to read: ends the process by SIGPIPE, which threads of
// this layer block and libraries ignore. Returns where whoever started the process has it ignored.
// Any thread.
void endByBrokenPipe();

}  // namespace Platform
