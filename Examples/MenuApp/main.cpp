// MenuApp: the menu-bar application, as an example in a terminal. Each command asks the agent for
// the main application's endpoint and talks to the main application directly.

#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Examples/Meetings.h"
#include "Platform/Dispatch/NSRunLoop.h"
#include "Platform/Foundation/NSBundle.h"
#include "Platform/Workspace/NSRunningApplication.h"
#include "Platform/XPC/NSXPCConnection.h"
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

constexpr const char* name = "MenuApp";
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
    "  MenuApp --help          show this\n";

int fail(const std::string& sentence) {
  complain(name, sentence);
  return 1;
}

// The main application's listener, asked from the agent. Says what is wrong when it gives none.
std::shared_ptr<NSXPCConnection> connectToMainApp() {
  const auto agent = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  agent->connect();
  const auto endpoint = agent->retrieveEndpoint(communicationIdentifier());
  if (!endpoint) {
    complain(name, whyNoAgent());
    return nullptr;
  }
  if (!*endpoint) {
    complain(name, "the main application is not running: the agent knows no endpoint of it.");
    return nullptr;
  }
  const auto connection = NSXPCConnection::initWithListenerEndpoint(*endpoint);
  connection->resume();
  return connection;
}

// The upcoming meetings. The answer also tells that every message sent before has arrived, since a
// connection's messages are delivered in order.
std::optional<std::vector<Meeting>> fetchMeetings(
    const std::shared_ptr<NSXPCConnection>& connection) {
  std::optional<Value> answer;
  connection->synchronousRemoteObjectProxyWithErrorHandler<Communication>({})
      ->fetchUpcomingMeetings([&](Value value) { answer = std::move(value); });
  if (!answer) {
    complain(name, "the main application is not running any more: it does not answer.");
    return std::nullopt;
  }
  auto meetings = meetingsFromValue(*answer);
  if (!meetings) complain(name, "the main application's answer is not a list of meetings.");
  return meetings;
}

int showUpcoming() {
  const auto connection = connectToMainApp();
  if (!connection) return 1;
  const auto meetings = fetchMeetings(connection);
  if (!meetings) return 1;
  if (meetings->empty()) say("no upcoming meetings");
  for (const Meeting& meeting : *meetings) {
    say(compactDayNameDateAndTimeForMenuIconApp(meeting.start).utf8() + "  " +
        meeting.title.utf8() + " (" + meeting.identifier.utf8() + ")");
  }
  return 0;
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
  if (!observation) return fail(whyNoAgent());
  const auto& counts = observation.countsAtStart();
  say("running: " + std::to_string(counts.at(GApp::main)) + " main, " +
      std::to_string(counts.at(GApp::menu)) + " menu-bar");
  NSRunLoop::currentRunLoop().run();
}

// Returns once the main application runs, and so can be reached. False when that cannot be told.
bool waitForMainApp() {
  std::promise<void> launched;
  const auto teller =
      std::make_shared<LaunchTeller>([&, told = false](GApp, bool isLaunch) mutable {
        if (isLaunch && !std::exchange(told, true)) launched.set_value();
      });
  const AppLaunchTerminationObservation observation(listenerFor(teller), {GApp::main});
  if (!observation) return false;
  if (observation.countsAtStart().at(GApp::main) == 0) launched.get_future().wait();
  return true;
}

const char* nameOf(CommandState state) {
  switch (state) {
    case CommandState::none:
      return "none";
    case CommandState::executing:
      return "executing";
    case CommandState::failed:
      return "failed";
    case CommandState::finished:
      return "finished";
  }
  return "";
}

// Carries a command out and shows each state that it reaches.
template <class Command>
int carryOut() {
  Command command;
  command.setStateUpdated(std::make_shared<const std::function<void(CommandState)>>(
      [](CommandState state) { say(nameOf(state)); }));
  ExecutableCommandProtocol& executable = command;
  executable.execute();
  return command.state() == CommandState::finished ? 0 : 1;
}

int showVersion() {
  const auto version = appVersion(NSBundle::mainBundle());
  if (!version) return fail("the application's Info.plist tells no version.");
  say(version->utf8());
  return 0;
}

int send(const std::function<void(Communication&)>& message, const std::string& done) {
  const auto connection = connectToMainApp();
  if (!connection) return 1;
  message(*connection->remoteObjectProxy<Communication>());
  if (!fetchMeetings(connection)) return 1;
  say(done);
  return 0;
}

}  // namespace

int main(int argumentCount, char** argumentVector) {
  const std::vector<std::string> arguments(argumentVector + 1, argumentVector + argumentCount);
  const std::string problem = problemWithOwnBundle();
  if (!problem.empty()) return fail(problem);

  const std::string command = arguments.empty() ? "--help" : arguments[0];
  const std::size_t count = arguments.size();
  if (command == "--help" && count <= 1) {
    std::fputs(help, stdout);
    return 0;
  }
  if (command == "--version" && count == 1) return showVersion();

  // From here on this is a running menu-bar application, for whoever watches.
  if (!NSRunningApplication::currentApplication()) return fail(whyNoAgent());
  if (command == "upcoming" && count == 1) return showUpcoming();
  if (command == "upcoming" && count == 2 && arguments[1] == "--wait") {
    return waitForMainApp() ? showUpcoming() : fail(whyNoAgent());
  }
  if (command == "watch" && count == 1) return watch();
  if (command == "feedback" && count == 1) return carryOut<FeedbackAndSupportCommand>();
  if (command == "support" && count == 1) return carryOut<SupportCommand>();
  if (command == "send-logs" && count == 1) return carryOut<SendLogsToSupportCommand>();
  if (command == "help-centre" && count == 1) {
    OpenHelpCenterCommand().execute();
    return 0;
  }
  if (command == "open" && count == 2) {
    const auto identifier = Text::fromUtf8(arguments[1]);
    if (!identifier) return fail("a meeting's identifier is text in UTF-8.");
    return send([&](Communication& mainApp) { mainApp.openMeetingWithId(*identifier); },
                "asked the main application to open meeting " + arguments[1]);
  }
  if (command == "new" && count == 1) {
    return send([](Communication& mainApp) { mainApp.createNewMeeting(); },
                "asked the main application to create a meeting");
  }
  if (command == "syncing" && count == 2 && (arguments[1] == "on" || arguments[1] == "off")) {
    const bool on = arguments[1] == "on";
    return send(
        [&](Communication& mainApp) {
          on ? mainApp.displaySyncing() : mainApp.displayNotSyncing();
        },
        "told the main application that synchronisation is " + arguments[1]);
  }
  return fail("it does not know that command; MenuApp --help shows those it knows.");
}
