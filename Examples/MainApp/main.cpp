// MainApp: the main application, as an example. It offers its meetings to the product's other
// applications: it exports Communication on a listener of its own, registers the listener's
// endpoint with the agent, and prints what it is asked.

#include <algorithm>
#include <memory>
#include <mutex>

#include "Examples/Meetings.h"
#include "Examples/Sentences.h"
#include "Platform/Dispatch/NSRunLoop.h"
#include "Platform/Foundation/PropertyList.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/AppLaunchTerminationListener.h"
#include "Shared/AppLaunchTerminationObservation.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace {

constexpr const char* help =
    "MainApp offers meetings to the product's other applications, which find it through the "
    "agent.\n"
    "\n"
    "  MainApp MEETINGS    offer the meetings of this property list, until interrupted\n"
    "  MainApp --help, -h  show this\n";

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

// Of several main applications, the one that registered last is found by the others. When one ends,
// this one registers again: it may be the only one that is left. Calls come on the observation's
// queue.
class Successor final : public AppLaunchTerminationListenerDelegate {
 public:
  Successor(std::shared_ptr<EndPointHandler> agent, EndpointRef endpoint)
      : agent_(std::move(agent)), endpoint_(std::move(endpoint)) {}
  void appDidLaunch(GApp) override {}
  void appDidTerminate(GApp) override {
    agent_->registerEndpoint(endpoint_, communicationIdentifier(), [](bool) {});
  }

 private:
  const std::shared_ptr<EndPointHandler> agent_;
  const EndpointRef endpoint_;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  openStandardStreams();
  if (argumentCount != 2) return complain("give it one argument, a property list with meetings.");
  const std::string argument = arguments[1];
  if (argument == "--help" || argument == "-h") {
    sayText(help);
    return 0;
  }
  const std::string problem = problemWithOwnBundle();
  if (!problem.empty()) return complain(problem);

  const auto content = propertyListFromFile(argument);
  if (!content) {
    return complain("the meetings file " + argument + " is missing or not a property list.");
  }
  const auto meetings = meetingsFromValue(*content);
  if (!meetings) {
    return complain("the meetings file " + argument +
                    " is not a list of meetings, each with an id, a title and a start date.");
  }

  const auto service = std::make_shared<MeetingService>(*meetings);
  const auto listener = NSXPCListener::anonymousListener();
  if (!listener) return complain(whyNoListener());
  listener->setDelegate(service);
  listener->resume();

  const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  agent->connect();
  if (agent->registerEndpoint(listener->endpoint(), communicationIdentifier(), patience) != true) {
    return complain(whyNoAgent());
  }
  // Checked in only now, so that whoever sees this application launch can reach it.
  if (!NSRunningApplication::currentApplication()) return complain(whyNotRunning());
  const auto successor = std::make_shared<Successor>(agent, listener->endpoint());
  const auto others = std::make_shared<AppLaunchTerminationListener>();
  others->setDelegate(successor);
  const AppLaunchTerminationObservation observation(others, {GApp::main});
  if (!observation) complain(whyNothingIsSeen());
  say("offers " + std::to_string(meetings->size()) + " meetings as " +
      communicationIdentifier().utf8());
  NSRunLoop::currentRunLoop().run();
}
