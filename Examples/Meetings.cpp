#include "Examples/Meetings.h"

#include <chrono>

#include "Shared/GApp.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

const Text identifierKey = "id"_text;
const Text titleKey = "title"_text;
const Text startKey = "start"_text;

const Value* find(const Dictionary& dictionary, const Text& key) {
  const auto entry = dictionary.find(key);
  return entry == dictionary.end() ? nullptr : &entry->second;
}

std::optional<Meeting> meetingFromValue(const Value& value) {
  const Dictionary* dictionary = value.asDictionary();
  if (!dictionary) return std::nullopt;
  const Value* identifier = find(*dictionary, identifierKey);
  const Value* title = find(*dictionary, titleKey);
  const Value* start = find(*dictionary, startKey);
  if (!identifier || !title || !start) return std::nullopt;
  if (!identifier->asText() || !title->asText() || !start->asDate()) return std::nullopt;
  return Meeting{*identifier->asText(), *title->asText(), *start->asDate()};
}

}  // namespace

std::optional<std::vector<Meeting>> meetingsFromValue(const Value& value) {
  const Array* array = value.asArray();
  if (!array) return std::nullopt;
  std::vector<Meeting> meetings;
  for (const Value& item : *array) {
    auto meeting = meetingFromValue(item);
    if (!meeting) return std::nullopt;
    meetings.push_back(*std::move(meeting));
  }
  return meetings;
}

Value valueFromMeetings(const std::vector<Meeting>& meetings) {
  Array array;
  for (const Meeting& meeting : meetings) {
    array.push_back(Dictionary{
        {identifierKey, meeting.identifier}, {titleKey, meeting.title}, {startKey, meeting.start}});
  }
  return array;
}

const Text& communicationIdentifier() {
  return mainAppBundleIdentifier;
}

NSDate now() {
  const std::chrono::duration<double> sinceEpoch =
      std::chrono::system_clock::now().time_since_epoch();
  return {sinceEpoch.count()};
}

}  // namespace Gantrel_Sync_Helper
