// MenuApp: the menu-bar application, as an example in a terminal. Each command asks the agent for
// the main application's endpoint and talks to the main application directly.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Examples/Meetings.h"
#include "Examples/Sentences.h"
#include "Platform/Dispatch/NSRunLoop.h"
#include "Platform/Foundation/NSBundle.h"
#include "Platform/Foundation/NSDateFormatter.h"
#include "Platform/Runtime/StandardStreams.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Platform/Workspace/Opening.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Shared/Addresses.h"
#include "Shared/AppLaunchTerminationListener.h"
#include "Shared/AppLaunchTerminationObservation.h"
#include "Shared/BundleVersion.h"
#include "Shared/Commands.h"
#include "Shared/Communication.h"
#include "Shared/DateFormatting.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"

using namespace Platform;
using namespace Gantrel_Sync_Helper;

namespace {

constexpr const char* help =
    "MenuApp talks to the main application, which it finds through the agent.\n"
    "\n"
    "  MenuApp upcoming        show the upcoming meetings\n"
    "  MenuApp upcoming --wait the same, waiting for the main application to launch\n"
    "  MenuApp open ID         open the meeting with this identifier\n"
    "  MenuApp new             create a new meeting\n"
    "  MenuApp syncing on|off  show whether synchronisation is under way\n"
    "  MenuApp watch           tell when an application launches or ends, until interrupted\n"
    "  MenuApp help-centre     open the help centre\n"
    "  MenuApp feedback        open the page for feedback and support\n"
    "  MenuApp support         write a mail to support\n"
    "  MenuApp send-logs       write a mail to support with the last day's log\n"
    "  MenuApp --version       show the version\n"
    "  MenuApp --help, -h      show this\n";

// As the agent answers: none without an answer, null when no main application has registered.
std::optional<EndpointRef> askForMainApp() {
  const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  agent->connect();
  return agent->retrieveEndpoint(communicationIdentifier(), patience);
}

std::shared_ptr<NSXPCConnection> connectTo(const EndpointRef& endpoint) {
  auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->resume();
  return connection;
}

// Says what is wrong when it gives none.
std::shared_ptr<NSXPCConnection> connectToMainApp() {
  const auto endpoint = askForMainApp();
  if (!endpoint) {
    complain(whyNoAgent());
    return nullptr;
  }
  if (!*endpoint) {
    complain("the main application is not running: the agent knows no endpoint of it.");
    return nullptr;
  }
  return connectTo(*endpoint);
}

// What the main application answers when asked for its meetings, or why it does not. The answer
// also tells that every message sent before has arrived, since a connection's messages are
// delivered in order.
struct Fetched {
  std::optional<Value> meetings;
  NSXPCConnectionError error = NSXPCConnectionError::invalid;
};

Fetched fetchMeetings(const std::shared_ptr<NSXPCConnection>& connection) {
  Fetched fetched;
  connection
      ->synchronousRemoteObjectProxyWithErrorHandler<Communication>(
          [&](NSXPCConnectionError error) { fetched.error = error; }, patience)
      ->fetchUpcomingMeetings([&](Value value) { fetched.meetings = std::move(value); });
  return fetched;
}

int complainOfNoAnswer(NSXPCConnectionError error) {
  switch (error) {
    case NSXPCConnectionError::timedOut:
      return complain("the main application runs, but has not answered for " +
                      std::to_string(patience.count()) + " seconds.");
    case NSXPCConnectionError::refused:
    case NSXPCConnectionError::replyInvalid:
      return complain("the main application runs, but does not know what it was asked.");
    case NSXPCConnectionError::interrupted:
    case NSXPCConnectionError::invalid:
      break;
  }
  return complain("the main application that the agent knows has ended: it does not answer.");
}

Text yearOf(const NSDate& date) {
  NSDateFormatter formatter;
  formatter.setCalendar(NSCalendar::autoupdatingCurrentCalendar());
  formatter.setDateFormat("y"_text);
  return formatter.stringFromDate(date).value_or(Text());
}

// With the year, if it is not this one. A date may be any number, from whoever answers.
std::string whenOf(const NSDate& start) {
  const std::string when = compactDayNameDateAndTimeForMenuIconApp(start).utf8();
  if (when.empty()) {
    const double seconds = start.timeIntervalSince1970;
    return (std::ostringstream() << "no day of a calendar: " << seconds << " seconds after 1970")
        .str();
  }
  const Text year = yearOf(start);
  return year == yearOf(now()) ? when : when + " (" + year.utf8() + ")";
}

int show(const Value& answer) {
  const auto meetings = meetingsFromValue(answer);
  if (!meetings) return complain("the main application's answer is not a list of meetings.");
  if (meetings->empty()) say("no upcoming meetings");
  for (const Meeting& meeting : *meetings) {
    say(whenOf(meeting.start) + "  " + meeting.title.utf8() + " (" + meeting.identifier.utf8() +
        ")");
  }
  return 0;
}

int showUpcoming() {
  const auto connection = connectToMainApp();
  if (!connection) return 1;
  const Fetched fetched = fetchMeetings(connection);
  return fetched.meetings ? show(*fetched.meetings) : complainOfNoAnswer(fetched.error);
}

// Calls come on the observation's queue, one at a time.
class LaunchTeller final : public AppLaunchTerminationListenerDelegate {
 public:
  explicit LaunchTeller(std::function<void(GApp, bool)> tell) : tell_(std::move(tell)) {}
  void appDidLaunch(GApp app) override { tell_(app, true); }
  void appDidTerminate(GApp app) override { tell_(app, false); }

 private:
  const std::function<void(GApp app, bool launched)> tell_;
};

std::shared_ptr<AppLaunchTerminationListener> listenerFor(
    const std::shared_ptr<LaunchTeller>& teller) {
  auto listener = std::make_shared<AppLaunchTerminationListener>();
  listener->setDelegate(teller);
  return listener;
}

int watch() {
  const auto teller = std::make_shared<LaunchTeller>([](GApp app, bool launched) {
    say(std::string(app == GApp::main ? "the main application" : "a menu-bar application") +
        (launched ? " launched" : " ended"));
  });
  const AppLaunchTerminationObservation observation(listenerFor(teller), {GApp::main, GApp::menu});
  if (!observation) return complain(whyNothingIsSeen());
  endWhenNobodyReads();
  const auto& counts = observation.countsAtStart();
  say("running: " + std::to_string(counts.at(GApp::main)) + " main, " +
      std::to_string(counts.at(GApp::menu)) + " menu-bar");
  NSRunLoop::currentRunLoop().run();
}

int waitAndShowUpcoming() {
  std::mutex mutex;
  std::condition_variable changed;
  int changes = 0;  // protected by mutex
  const auto teller = std::make_shared<LaunchTeller>([&](GApp, bool) {
    const std::lock_guard lock(mutex);
    ++changes;
    changed.notify_one();
  });
  const AppLaunchTerminationObservation observation(listenerFor(teller), {GApp::main});
  if (!observation) return complain(whyNothingIsSeen());
  endWhenNobodyReads();
  const auto changesNow = [&] {
    const std::lock_guard lock(mutex);
    return changes;
  };
  for (;;) {
    const int before = changesNow();
    const bool runs =
        !NSRunningApplication::runningApplicationsWithBundleIdentifier(mainAppBundleIdentifier)
             .empty();
    if (runs) {
      const auto endpoint = askForMainApp();
      if (!endpoint) return complain(whyNoAgent());
      const Fetched fetched = *endpoint ? fetchMeetings(connectTo(*endpoint)) : Fetched{};
      if (fetched.meetings) return show(*fetched.meetings);
    }
    std::unique_lock lock(mutex);
    const auto isChanged = [&] { return changes != before; };
    // One that runs and is not found will be in a moment: it registers again after the agent, or
    // another main application, has ended.
    if (runs) {
      changed.wait_for(lock, std::chrono::milliseconds(100), isChanged);
    } else {
      changed.wait(lock, isChanged);
    }
  }
}

// Why the opener's work was not done, and what can be done without it.
std::string whyNotOpened(const std::string& instead) {
  const std::string missing = missingOpener();
  return (missing.empty() ? "the desktop's opener failed, as without a desktop or program for it"
                          : missing) +
         "; " + instead + ".";
}

std::string pageInstead(std::string_view address) {
  return whyNotOpened("the address is " + std::string(address));
}

std::string mailInstead() {
  return whyNotOpened("the address is " + std::string(Addresses::supportMail));
}

std::string logInstead() {
  const auto log = writeLogForSupport();
  if (log) {
    return whyNotOpened("attach " + *log + " to a mail to " + std::string(Addresses::supportMail));
  }
  return "there is no log to send: the journal holds no line that the product's applications wrote "
         "in the last day, or the file for it, gantrel/log.txt in the folder for states, cannot be "
         "written.";
}

// Carries a command out, and says how it goes and what came of it. `instead` is the reason, and
// what to do, if nothing did.
template <class Command>
int carryOut(const std::string& what, const std::function<std::string()>& instead) {
  Command command;
  if constexpr (std::is_base_of_v<StateUpdatableCommandProtocol, Command>) {
    command.setStateUpdated(
        std::make_shared<const std::function<void(CommandState)>>([&](CommandState state) {
          if (state == CommandState::executing) say("opening " + what);
        }));
  }
  ExecutableCommandProtocol& executable = command;
  if (!executable.execute()) return complain(what + " could not be opened: " + instead());
  say("opened " + what);
  return 0;
}

int showVersion() {
  const auto version = appVersion(NSBundle::mainBundle());
  if (!version) return complain("the application's Info.plist tells no version.");
  say(version->utf8());
  return 0;
}

int showHelp() {
  sayText(help);
  return 0;
}

int send(const std::function<void(Communication&)>& message, const std::string& done) {
  const auto connection = connectToMainApp();
  if (!connection) return 1;
  message(*connection->remoteObjectProxy<Communication>());
  const Fetched fetched = fetchMeetings(connection);
  if (!fetched.meetings) return complainOfNoAnswer(fetched.error);
  say(done);
  return 0;
}

// What is asked for: an action that gives the exit status, and whether it is done as a running
// menu-bar application, for whoever watches.
struct Asked {
  std::function<int()> action;
  bool isRunning = true;
};

Asked refuse(const std::string& sentence) {
  complain(sentence);
  return {};
}

// Without an action when it is not to be understood, which has been said then.
Asked understand(const std::string& command, const std::vector<std::string>& arguments) {
  const bool isAlone = arguments.empty();
  if (command == "open") {
    if (arguments.size() != 1) return refuse("open takes the ID of one meeting.");
    const auto identifier = Text::fromUtf8(arguments[0]);
    if (!identifier) return refuse("a meeting's ID is text in UTF-8.");
    return {[=] {
      return send([&](Communication& mainApp) { mainApp.openMeetingWithId(*identifier); },
                  "asked the main application to open meeting " + identifier->utf8());
    }};
  }
  if (command == "syncing") {
    if (arguments.size() != 1 || (arguments[0] != "on" && arguments[0] != "off")) {
      return refuse("syncing takes on or off.");
    }
    return {[on = arguments[0] == "on"] {
      return send(
          [&](Communication& mainApp) {
            on ? mainApp.displaySyncing() : mainApp.displayNotSyncing();
          },
          std::string("told the main application that synchronisation is ") + (on ? "on" : "off"));
    }};
  }
  if (command == "upcoming" && !isAlone) {
    if (arguments != std::vector<std::string>{"--wait"}) {
      return refuse("upcoming takes nothing but --wait.");
    }
    return {waitAndShowUpcoming};
  }
  const std::map<std::string, Asked> simple = {
      {"--help", {showHelp, false}},
      {"-h", {showHelp, false}},
      {"--version", {showVersion, false}},
      {"upcoming", {showUpcoming}},
      {"watch", {watch}},
      {"new", {[] {
         return send([](Communication& mainApp) { mainApp.createNewMeeting(); },
                     "asked the main application to create a meeting");
       }}},
      {"help-centre", {[] {
         return carryOut<OpenHelpCenterCommand>("the help centre",
                                                [] { return pageInstead(Addresses::helpCenter); });
       }}},
      {"feedback", {[] {
         return carryOut<FeedbackAndSupportCommand>("the page for feedback and support", [] {
           return pageInstead(Addresses::feedbackAndSupport);
         });
       }}},
      {"support", {[] { return carryOut<SupportCommand>("a mail to support", mailInstead); }}},
      {"send-logs", {[] {
         return carryOut<SendLogsToSupportCommand>("a mail to support with the log", logInstead);
       }}},
  };
  const auto known = simple.find(command);
  if (known == simple.end()) {
    return refuse("it does not know that command; MenuApp --help shows those it knows.");
  }
  return isAlone ? known->second : refuse(command + " takes no argument.");
}

}  // namespace

int main(int argumentCount, char** argumentVector) {
  openStandardStreams();
  std::vector<std::string> arguments(argumentVector + 1, argumentVector + argumentCount);
  if (arguments.empty()) arguments = {"--help"};
  const std::string command = arguments.front();
  arguments.erase(arguments.begin());
  const Asked asked = understand(command, arguments);
  if (!asked.action) return 1;

  const std::string problem = problemWithOwnBundle();
  if (!problem.empty()) return complain(problem);
  if (asked.isRunning && !NSRunningApplication::currentApplication()) {
    return complain(whyNotRunning());
  }
  return asked.action();
}
