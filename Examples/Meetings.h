// Meetings, as they travel between the two example applications.
#pragma once

#include <optional>
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

Platform::NSDate now();

}  // namespace Gantrel_Sync_Helper
