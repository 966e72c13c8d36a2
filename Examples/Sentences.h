// What the example applications say to people. Everything that comes from outside is escaped.
#pragma once

#include <chrono>
#include <string>

namespace Gantrel_Sync_Helper {

// How long to wait for another process before telling the user that it does not answer.
inline constexpr std::chrono::seconds patience(5);

// Writes to standard output: a line, or a text of several that is our own. When that cannot be
// done, the process ends with status 1 and says so on standard error. Any thread.
void say(const std::string& line);
void sayText(const std::string& lines);

// Writes a sentence about what went wrong to standard error, after the application's name, and
// gives the exit status for it. Any thread.
int complain(const std::string& sentence);

// Each of these looks at what is the case now, and gives one sentence with what mends it.
std::string whyNoAgent();        // there is no answer from the agent
std::string whyNoListener();     // no listener can be made
std::string whyNotRunning();     // the application cannot show itself as running
std::string whyNothingIsSeen();  // running applications cannot be observed

// The problem with this application's own bundle, as one sentence; empty when there is none.
std::string problemWithOwnBundle();

}  // namespace Gantrel_Sync_Helper
