// Programs that a command runs for its user.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Gantrel_Sync_Helper {

// Ends the process with a sentence, and a shell's status, when there is no such program, or it may
// not be run.
void requireProgram(const std::string& name);

enum class Group { same, own };  // whom an interrupt of the terminal reaches

// Starts `command` with these as its standard input and output, and every signal as at first. 0
// when it cannot be started, which is said.
pid_t start(const std::vector<std::string>& command, int input, int output, Group group);

}  // namespace Gantrel_Sync_Helper
