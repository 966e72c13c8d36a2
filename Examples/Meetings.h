// What the two example applications have in common: meetings as they travel between them, and
// sentences for people.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Runtime/NSDate.h"
#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/Value.h"

namespace Gantrel_Sync_Helper {

struct Meeting {
  Platform::Text identifier;
  Platform::Text title;
  Platform::NSDate start;
};

// A list of meetings is an array of dictionaries with the keys "id" and "title" (texts) and "start"
// (date), in a property list as well as in the answer to `fetchUpcomingMeetings`. None when `value`
// is anything else.
std::optional<std::vector<Meeting>> meetingsFromValue(const Platform::Value& value);
Platform::Value valueFromMeetings(const std::vector<Meeting>& meetings);

// The identifier under which the main application registers its listener with the agent.
const Platform::Text& communicationIdentifier();

// Why there is no answer from the agent, as one sentence for people.
std::string whyNoAgent();

// The problem with this application's own bundle, as one sentence; empty when there is none.
std::string problemWithOwnBundle();

// Writes a line to standard output, or a sentence about what went wrong to standard error, after
// the application's name. What comes from outside is escaped.
void say(const std::string& line);
void complain(const std::string& application, const std::string& sentence);

}  // namespace Gantrel_Sync_Helper
