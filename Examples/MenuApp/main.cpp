// MenuApp: the menu-bar application, as an example in a terminal. Each command asks the agent for
// the main application's endpoint and talks to the main application directly.

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Examples/Meetings.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Shared/Communication.h"
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
    "  MenuApp open ID         open the meeting with this identifier\n"
    "  MenuApp new             create a new meeting\n"
    "  MenuApp syncing on|off  show whether synchronisation is under way\n"
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
    say(meeting.identifier.utf8() + "  " + meeting.title.utf8());
  }
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
  if (command == "upcoming" && count == 1) return showUpcoming();
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
