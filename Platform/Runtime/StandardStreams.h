// Standard input, output and error, which a process may be started without.
#pragma once

namespace Platform {

// Opens /dev/null for each of the three that is closed: else the next files or sockets would get
// their numbers, and what is meant for standard error would go there. First thing in `main`.
void openStandardStreams();

}  // namespace Platform
