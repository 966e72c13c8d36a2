// Stopping the process when a contract of our own is broken. Nothing that a peer does leads here.
#pragma once

#include <string_view>

namespace Platform {

// Why the process stopped, for whoever started it. The numbers are those of sysexits.h.
enum class ExitStatus : int {
  usage = 64,        // EX_USAGE: the command line
  data = 65,         // EX_DATAERR: a file that the user gave
  noInput = 66,      // EX_NOINPUT: such a file is missing
  unavailable = 69,  // EX_UNAVAILABLE: a service that cannot be had
  software = 70,     // EX_SOFTWARE: a broken contract in the program
  config = 78,       // EX_CONFIG: the installation, such as a bundle without an identifier
};

// Writes out the log and ends the process at once, without running destructors. Any thread.
[[noreturn]] void stopProcess(ExitStatus status);

// stopProcess with ExitStatus::software, after a report on standard error:
// "fatal error: MESSAGE: file SOURCE, line LINE".
[[noreturn]] void fatalError(std::string_view message, std::string_view sourceFile, unsigned line);

// The same for an initialiser that must not be called:
// "fatal error: unimplemented initialiser "INITIALISER" of class "CLASS"".
[[noreturn]] void unimplementedInitialiser(std::string_view initialiser,
                                           std::string_view className);

}  // namespace Platform
