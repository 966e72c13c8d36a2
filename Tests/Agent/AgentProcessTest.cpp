// Several processes: the agent as it is shipped, MainApp, and this one.

#include <latch>
#include <tuple>

#include "Examples/Meetings.h"
#include "Platform/XPC/Socket.h"
#include "Shared/Communication.h"
#include "Tests/Support/AgentTest.h"
#include "Tests/Support/StandInOpeners.h"

namespace Gantrel_Sync_Helper {
namespace {

namespace fs = std::filesystem;
using namespace Platform;
using TestSupport::ChildProcess;
using TestSupport::executableOf;

const std::string theAgent = executableOf("GantrelAgent");
const std::string mainApp = executableOf("MainApp");
const std::string menuApp = executableOf("MenuApp");
const std::string meetingsFile = GANTREL_SOURCE_DIR "/Examples/MainApp/Meetings.plist";

// A program's exit status, and what it wrote to its standard output and standard error.
std::tuple<int, std::string, std::string> run(const std::vector<std::string>& command,
                                              const std::vector<std::string>& environment = {}) {
  ChildProcess process(command, environment);
  const std::string output = process.readAllOutput();
  const std::string errors = process.readAllErrors();
  return {process.wait(), output, errors};
}

bool isOneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

// An agent that cannot serve: it tells of its beginning alone.
void expectRefusal(const std::vector<std::string>& environment = {}) {
  const auto [status, output, written] = run({theAgent}, environment);
  EXPECT_EQ(status, 69);
  EXPECT_TRUE(isOneLine(written) && written.find("Agent init ") != std::string::npos) << written;
}

class Agents : public AgentTest {};

TEST_F(Agents, BringTwoApplicationsTogetherAndAreThenNotNeeded) {
  ChildProcess agent = startAgent();
  ChildProcess application({mainApp, meetingsFile});
  EXPECT_EQ(application.readLine(), "offers 3 meetings as " + mainAppBundleIdentifier.utf8());

  const auto endpoint = connect()->retrieveEndpoint(communicationIdentifier());
  ASSERT_TRUE(endpoint && *endpoint);
  agent.stop();
  const auto connection = NSXPCConnection::initWithListenerEndpoint(*endpoint);
  connection->resume();
  const auto proxy = connection->synchronousRemoteObjectProxyWithErrorHandler<Communication>(
      [](auto) { ADD_FAILURE() << "no answer"; });
  proxy->openMeetingWithId("cafe\u0301"_text);
  proxy->fetchUpcomingMeetings(
      [](const Value& value) { EXPECT_EQ(meetingsFromValue(value).value().size(), 3u); });
  EXPECT_EQ(application.readLine(), "opens meeting cafe\u0301: Coffee with the design team");
  agent.signal(SIGCONT);

  // The entry outlives its registrar.
  application.signal(SIGKILL);
  application.wait();
  EXPECT_NE(found(communicationIdentifier()), 0u);
}

TEST_F(Agents, KeepOneEndpointPerIdentifierWhateverTheIdentifier) {
  ChildProcess agent = startAgent("exec \"$0\"");
  const auto handler = connect();
  const auto listeners = {NSXPCListener::anonymousListener(), NSXPCListener::anonymousListener()};
  const std::size_t size = TestSupport::isSanitized ? 1 << 20 : 10 << 20;
  std::string misordered = "a";
  while (misordered.size() < size) misordered += "\u0301\u0323";
  // The large ones last: their lines fill the log, which nobody reads meanwhile.
  std::vector<Text> identifiers = {""_text,          "line\nbreak \x1b[31m"_text,
                                   "caf\u00e9"_text, "a"_text,
                                   "A"_text,         "nul\0one"_text,
                                   "nul\0two"_text};
  identifiers.push_back(Text::fromUtf8(std::string(size, 'x')).value());
  identifiers.push_back(Text::fromUtf8(misordered).value());
  for (const Text& identifier : identifiers) {
    EXPECT_EQ(found(identifier), 0u);
    for (const auto& listener : listeners) {
      EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), identifier), true);
      EXPECT_EQ(found(identifier), inode(listener->endpoint()));
    }
  }
  EXPECT_NE(found("cafe\u0301"_text), 0u);
  for (const Text& identifier : identifiers) {
    for (int twice = 0; twice < 2; ++twice) handler->removeEndpoint(identifier);
    EXPECT_EQ(*handler->retrieveEndpoint(identifier), nullptr);
  }
  agent.signal(SIGTERM);
  const std::string log = agent.readAllErrors();
  for (const char* const line : {"Z Agent init com.gantrel.Gantrel.agent (GantrelAgent/Agent:25 in",
                                 "Z Agent resume (GantrelAgent/Agent:34 resume())\n",
                                 "Identifier=line\\x0abreak \\x1b[31m ("}) {
    EXPECT_NE(log.find(line), std::string::npos) << line;
  }
}

TEST_F(Agents, ApplyRequestsSentWithoutWaitingInTheirOrder) {
  ChildProcess agent = startAgent();
  const auto handler = connect();
  const auto listener = NSXPCListener::anonymousListener();
  constexpr int rounds = 1000;
  std::latch answers(rounds);
  for (int i = 0; i < rounds; ++i) {
    const bool isThere = i % 2 == 0;
    if (isThere) handler->registerEndpoint(listener->endpoint(), "a"_text, [](bool) {});
    if (!isThere) handler->removeEndpoint("a"_text);
    handler->retrieveEndpoint("a"_text, [&, isThere](const auto& endpoint) {
      EXPECT_EQ(endpoint.has_value(), isThere);
      answers.count_down();
    });
  }
  answers.wait();
}

TEST_F(Agents, ServeOnlyOneForANameAndMakeRoomWhenKilled) {
  EXPECT_FALSE(connect()->retrieveEndpoint({}));
  UniqueFd waiting = bindTo(socketPath());  // as a service manager's
  ASSERT_TRUE(listenOn(waiting.get()));
  expectRefusal();
  EXPECT_EQ(connectTo(socketPath()).outcome, ConnectOutcome::connected);
  waiting.reset();
  for (int i = 0; i < 3; ++i) {
    ChildProcess agent = startAgent("exec \"$0\" 0<&- 1>&- 2>&-");
    const fs::path descriptors = "/proc/" + std::to_string(agent.pid()) + "/fd";
    EXPECT_EQ(fs::read_symlink(descriptors / "2"), "/dev/null") << "no file of its own";
    expectRefusal();
    EXPECT_TRUE(connect()->retrieveEndpoint({}));
    agent.signal(SIGKILL);
    agent.wait();
  }
}

TEST_F(Agents, SayWhatEndedThemByTheirStatusAlone) {
  const fs::path contents = fs::path(directory.path()) / "Broken.app/Contents";
  fs::create_directories(contents / "Linux");
  std::ofstream(contents / "Info.plist") << "<plist><dict><key>CFBundleIdentifier</key>";
  for (const fs::path& copy : {fs::path(directory.path()) / "bare", contents / "Linux/x"}) {
    fs::copy_file(theAgent, copy);
    EXPECT_EQ(run({copy}), std::tuple(78, "", ""));
  }
  fs::permissions(contents, fs::perms::all);
  for (const std::string& runtime : {std::string("/nowhere"), contents.string(), theAgent}) {
    expectRefusal({"XDG_RUNTIME_DIR=" + runtime});
  }
}

TEST_F(Agents, LeaveNobodyWaitingWhenTheyGo) {
  ChildProcess agent = startAgent();
  std::promise<NSXPCConnectionError> told;
  const auto handler = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  handler->connect([&](NSXPCConnectionError error) { told.set_value(error); });
  EXPECT_TRUE(handler->retrieveEndpoint("a"_text));
  agent.stop();
  handler->retrieveEndpoint("a"_text, [](auto) { ADD_FAILURE() << "the agent was stopped"; });
  auto waiting = std::async(std::launch::async, [&] { return connect()->retrieveEndpoint({}); });
  agent.signal(SIGKILL);
  agent.wait();
  EXPECT_EQ(waiting.get(), std::nullopt);
  EXPECT_EQ(told.get_future().get(), NSXPCConnectionError::interrupted);
  EXPECT_EQ(handler->retrieveEndpoint("a"_text), std::nullopt);
}

// One sentence about it, and an exit status that tells.
void expectComplaint(const std::vector<std::string>& command, const std::string& about,
                     const std::vector<std::string>& environment = {}) {
  const auto [status, output, errors] = run(command, environment);
  EXPECT_EQ(std::tuple(status, output), std::tuple(1, "")) << errors;
  EXPECT_TRUE(isOneLine(errors) && errors.find(about) != std::string::npos) << errors;
}

TEST_F(Agents, AreExplainedToPeopleByTheExamples) {
  expectComplaint({mainApp, GANTREL_BUILD_DIR "/MainApp.app/Contents/Info.plist"},
                  "not a list of meetings");
  expectComplaint({menuApp, "open", "\xff"}, "UTF-8");
  expectComplaint({menuApp, "open"}, "takes the ID");
  expectComplaint({menuApp, "syncing", "maybe"}, "takes on or off");
  expectComplaint({menuApp, "upcomming"}, "does not know");
  EXPECT_TRUE(std::filesystem::is_empty(directory.path())) << "ran as an application";
  EXPECT_NE(std::get<1>(run({mainApp, "--help"})).find("MEETINGS"), std::string::npos);
  expectComplaint({menuApp, "upcoming"}, "not running: systemctl --user start");
  expectComplaint({menuApp, "new"}, "/nowhere\\x1b", {"XDG_RUNTIME_DIR=/nowhere\x1b[31m"});
  const std::filesystem::path open = directory.path() + "/open";
  std::filesystem::create_directory(open);
  std::filesystem::permissions(open, std::filesystem::perms(0755));
  expectComplaint({menuApp, "new"}, "open to other users", {"XDG_RUNTIME_DIR=" + open.string()});

  ChildProcess agent = startAgent();
  expectComplaint({menuApp, "upcoming"}, "the main application is not running");
  if (!TestSupport::isSanitized) {  // a sanitizer takes descriptors to look at memory
    expectComplaint({"bash", "-c", "exec 3>&- 4>&-; ulimit -n 4; exec \"$0\" watch", menuApp},
                    "inotify");
  }
  const std::filesystem::path applications = directory.path() + "/gantrel/applications";
  std::filesystem::permissions(applications, std::filesystem::perms(0755));
  expectComplaint({menuApp, "upcoming"}, "chmod 700 " + applications.string());
}

TEST_F(Agents, LeadToAMainApplicationAlsoWhenTheLastToRegisterHasEnded) {
  ChildProcess agent = startAgent();
  ChildProcess first({mainApp, meetingsFile});
  ASSERT_TRUE(first.readLine());
  ChildProcess second({mainApp, meetingsFile});
  ASSERT_TRUE(second.readLine());
  EXPECT_EQ(std::get<0>(run({menuApp, "new"})), 0);
  EXPECT_EQ(second.readLine(), "creates meeting new-1");
  second.signal(SIGKILL);
  second.wait();
  const auto [status, output, errors] = run({menuApp, "upcoming", "--wait"});
  EXPECT_EQ(std::tuple(status, errors), std::tuple(0, ""));
  EXPECT_NE(output.find(" (2035)  Weekly planning (weekly)\n"), std::string::npos) << output;
  const std::string unread = "exec 3> >(:); wait $!; \"$0\" upcoming >&3; exit $?";
  EXPECT_EQ(run({"bash", "-c", unread, menuApp}), std::tuple(128 + SIGPIPE, "", ""));
  first.signal(SIGSTOP);
  expectComplaint({menuApp, "upcoming"}, "runs, but has not answered for 5 seconds");
  agent.signal(SIGSTOP);
  expectComplaint({menuApp, "new"}, "no answer in time");
  expectComplaint({mainApp, meetingsFile}, "no answer in time");
}

TEST_F(Agents, HaveExamplesThatEndWhenNobodyCanReadThem) {
  ChildProcess agent = startAgent();
  for (const char* const line : {"\"$0\" --help", "\"$0\" watch", "\"$1\" \"$2\"", "\"$1\" -h"}) {
    for (const char* const nowhere : {" >/dev/full", " >&-"}) {
      expectComplaint({"bash", "-c", std::string(line) + nowhere, menuApp, mainApp, meetingsFile},
                      "cannot be written");
    }
  }
  EXPECT_EQ(run({"bash", "-c", "set -o pipefail; \"$0\" watch | head -1", menuApp}),
            std::tuple(128 + SIGPIPE, "running: 0 main, 1 menu-bar\n", ""));
}

TEST(Examples, SayWhatCameOfOpeningSomething) {
  TestSupport::StandInOpeners openers;
  expectComplaint({menuApp, "help-centre"}, "not installed");
  openers.add("xdg-open", "");
  EXPECT_EQ(run({menuApp, "help-centre"}), std::tuple(0, "opened the help centre\n", ""));
  openers.add("xdg-open", "exit 3");
  openers.add("xdg-email", "exit 3");
  expectComplaint({menuApp, "help-centre"}, "failed");
  const auto [status, output, errors] = run({menuApp, "support"});
  EXPECT_EQ(std::tuple(status, output), std::tuple(1, "opening a mail to support\n"));
  EXPECT_TRUE(isOneLine(errors) && errors.find("support@") != std::string::npos) << errors;
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
