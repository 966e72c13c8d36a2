#include "Examples/Meetings.h"

#include <cstdio>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/RuntimeDirectory.h"
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

std::string whyNoAgent() {
  const std::string problem = runtimeDirectoryProblem();
  if (!problem.empty()) return "the agent cannot be reached: " + problem + ".";
  return "the agent is not running: nobody serves " + agentAppBundleIdentifier.utf8() + ".";
}

std::string problemWithOwnBundle() {
  if (NSBundle::mainBundle().bundleIdentifier()) return {};
  return "the application's Info.plist is missing, broken or without an identifier: install it "
         "again.";
}

void say(const std::string& line) {
  std::printf("%s\n", escaped(line).c_str());
  std::fflush(stdout);
}

void complain(const std::string& application, const std::string& sentence) {
  std::fprintf(stderr, "%s: %s\n", application.c_str(), escaped(sentence).c_str());
}

}  // namespace Gantrel_Sync_Helper
