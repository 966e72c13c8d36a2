// MainApp: the main application, as an example. It offers its meetings to the product's other
// applications: it exports Communication on a listener of its own, registers the listener's
// endpoint with the agent, and prints what it is asked.

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>

#include "Examples/Meetings.h"
#include "Platform/Dispatch/NSRunLoop.h"
#include "Platform/Foundation/PropertyList.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace {

constexpr const char* name = "MainApp";

NSDate now() {
  const std::chrono::duration<double> sinceEpoch =
      std::chrono::system_clock::now().time_since_epoch();
  return {sinceEpoch.count()};
}

// Called on the queues of its connections, several at once.
class MeetingService final : public NSObject, public Communication, public NSXPCListenerDelegate {
 public:
  explicit MeetingService(std::vector<Meeting> meetings) : meetings_(std::move(meetings)) {}

  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<Communication>());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }

  void openMeetingWithId(Text identifier) override {
    const std::lock_guard lock(mutex_);
    const auto meeting =
        std::find_if(meetings_.begin(), meetings_.end(),
                     [&](const Meeting& candidate) { return candidate.identifier == identifier; });
    say(meeting == meetings_.end()
            ? "asked to open meeting " + identifier.utf8() + ", which is not there"
            : "opens meeting " + identifier.utf8() + ": " + meeting->title.utf8());
  }

  void createNewMeeting() override {
    constexpr double hour = 3600;
    const std::lock_guard lock(mutex_);
    const Text identifier =
        Text::fromUtf8("new-" + std::to_string(++created_)).value_or("new"_text);
    meetings_.push_back({identifier, "New meeting"_text, {now().timeIntervalSince1970 + hour}});
    say("creates meeting " + identifier.utf8());
  }

  void fetchUpcomingMeetings(Reply<Value> reply) override {
    std::vector<Meeting> upcoming;
    {
      const std::lock_guard lock(mutex_);
      const NSDate today = now();
      std::copy_if(meetings_.begin(), meetings_.end(), std::back_inserter(upcoming),
                   [&](const Meeting& meeting) { return meeting.start >= today; });
      say("answers " + std::to_string(upcoming.size()) + " upcoming meetings");
    }
    std::sort(upcoming.begin(), upcoming.end(),
              [](const Meeting& a, const Meeting& b) { return a.start < b.start; });
    reply(valueFromMeetings(upcoming));
  }

  void displaySyncing() override { say("shows that synchronisation is under way"); }
  void displayNotSyncing() override { say("shows that synchronisation has ended"); }

 private:
  std::mutex mutex_;
  // Protected by mutex_:
  std::vector<Meeting> meetings_;
  int created_ = 0;
};

int fail(const std::string& sentence) {
  complain(name, sentence);
  return 1;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) return fail("give it one argument, a property list with meetings.");
  const std::string problem = problemWithOwnBundle();
  if (!problem.empty()) return fail(problem);

  const std::string path = arguments[1];
  const auto content = propertyListFromFile(path);
  if (!content) return fail("the meetings file " + path + " is missing or not a property list.");
  const auto meetings = meetingsFromValue(*content);
  if (!meetings) {
    return fail("the meetings file " + path +
                " is not a list of meetings, each with an id, a title and a start date.");
  }

  const auto service = std::make_shared<MeetingService>(*meetings);
  const auto listener = NSXPCListener::anonymousListener();
  if (!listener) return fail(whyNoAgent());
  listener->setDelegate(service);
  listener->resume();

  const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  agent->connect();
  if (agent->registerEndpoint(listener->endpoint(), communicationIdentifier()) != true) {
    return fail(whyNoAgent());
  }
  // Checked in only now, so that whoever sees this application launch can reach it.
  if (!NSRunningApplication::currentApplication()) return fail(whyNoAgent());
  say("offers " + std::to_string(meetings->size()) + " meetings as " +
      communicationIdentifier().utf8());
  NSRunLoop::currentRunLoop().run();
}
