// Several processes: the agent as it is shipped, MainApp, and this one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <memory>
#include <thread>

#include "Examples/Meetings.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Shared/Communication.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"
#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
using TestSupport::ChildProcess;
using TestSupport::executableOf;

const std::string mainApp = executableOf("MainApp");
const std::string meetingsFile = GANTREL_SOURCE_DIR "/Examples/MainApp/Meetings.plist";

class Agents : public testing::Test {
 protected:
  std::string socketPath() const {
    return directory.path() + "/gantrel/" + agentAppBundleIdentifier.utf8() + ".socket";
  }

  ChildProcess startAgent() {
    ChildProcess agent({executableOf("GantrelAgent")});
    EXPECT_NE(agent.readErrorLine()->find("Z Agent init " + agentAppBundleIdentifier.utf8() +
                                          " (GantrelAgent/Agent:25 init(serviceName:))"),
              std::string::npos);
    EXPECT_NE(agent.readErrorLine()->find("Z Agent resume (GantrelAgent/Agent:34 resume())"),
              std::string::npos);
    EXPECT_TRUE(TestSupport::eventually([&] { return reachable(); }));
    return agent;
  }

  bool reachable() { return connect()->retrieveEndpoint(""_text).has_value(); }

  static std::shared_ptr<EndPointHandler> connect() {
    auto handler = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
    handler->connect();
    return handler;
  }

  static Text text(std::string bytes) { return *Text::fromUtf8(std::move(bytes)); }

  TestSupport::PrivateRuntimeDirectory directory;
};

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
  proxy->openMeetingWithId(text("cafe\u0301"));
  std::optional<std::vector<Meeting>> meetings;
  proxy->fetchUpcomingMeetings([&](Value value) { meetings = meetingsFromValue(value); });
  ASSERT_TRUE(meetings);
  EXPECT_EQ(meetings->size(), 3u);
  EXPECT_EQ(application.readLine(), "opens meeting cafe\u0301: Coffee with the design team");
  agent.signal(SIGCONT);

  // The entry outlives its registrar, and is of no use then.
  application.signal(SIGKILL);
  application.wait();
  const auto stale = connect()->retrieveEndpoint(communicationIdentifier());
  ASSERT_TRUE(stale && *stale);
  std::optional<NSXPCConnectionError> error;
  const auto dead = NSXPCConnection::initWithListenerEndpoint(*stale);
  dead->resume();
  dead->synchronousRemoteObjectProxyWithErrorHandler<Communication>([&](auto e) { error = e; })
      ->fetchUpcomingMeetings([](Value) {});
  EXPECT_EQ(error, NSXPCConnectionError::invalid);
}

TEST_F(Agents, KeepOneEndpointPerIdentifierWhateverTheIdentifier) {
  ChildProcess agent = startAgent();
  const auto handler = connect();
  const auto listeners = {NSXPCListener::anonymousListener(), NSXPCListener::anonymousListener()};
  const auto inode = [](const EndpointRef& endpoint) {
    struct stat status {};
    return endpoint && ::fstat(endpoint->descriptor(), &status) == 0 ? status.st_ino : 0;
  };
  const std::size_t large = TestSupport::isSanitized ? 1 << 20 : 10 << 20;
  std::string misordered = "a";
  while (misordered.size() < large) misordered += "\u0301\u0323";
  const Text identifiers[] = {text(""),
                              text("notes"),
                              text("Notes"),
                              text("line\nbreak \x1b[31m"),
                              text(std::string("nul\0one", 7)),
                              text(std::string("nul\0two", 7)),
                              text("caf\u00e9"),
                              text(std::string(large, 'x')),
                              text(misordered)};
  for (const Text& identifier : identifiers) {
    EXPECT_EQ(*handler->retrieveEndpoint(identifier), nullptr);
    for (const auto& listener : listeners) {
      EXPECT_EQ(handler->registerEndpoint(listener->endpoint(), identifier), true);
      for (int twice = 0; twice < 2; ++twice) {
        EXPECT_EQ(inode(*connect()->retrieveEndpoint(identifier)), inode(listener->endpoint()));
      }
    }
  }
  EXPECT_NE(*handler->retrieveEndpoint(text("cafe\u0301")), nullptr);
  for (const Text& identifier : identifiers) {
    handler->removeEndpoint(identifier);
    handler->removeEndpoint(identifier);
    EXPECT_EQ(*handler->retrieveEndpoint(identifier), nullptr);
  }
  agent.signal(SIGTERM);
  EXPECT_NE(agent.readAllErrors().find("Identifier=line\\x0abreak \\x1b[31m ("), std::string::npos);
}

TEST_F(Agents, ApplyRequestsSentWithoutWaitingInTheirOrder) {
  ChildProcess agent = startAgent();
  const auto handler = connect();
  const auto listener = NSXPCListener::anonymousListener();
  std::thread other([] {
    for (int i = 0; i < 200; ++i) EXPECT_EQ(*connect()->retrieveEndpoint("b"_text), nullptr);
  });
  constexpr int rounds = 500;
  std::latch answers(2 * rounds);
  std::atomic<int> wrong = 0;
  for (int i = 0; i < rounds; ++i) {
    handler->registerEndpoint(listener->endpoint(), "a"_text, [&](bool) {});
    handler->retrieveEndpoint("a"_text, [&](std::optional<EndpointRef> found) {
      wrong += !found;
      answers.count_down();
    });
    handler->removeEndpoint("a"_text);
    handler->retrieveEndpoint("a"_text, [&](std::optional<EndpointRef> found) {
      wrong += found.has_value();
      answers.count_down();
    });
  }
  answers.wait();
  other.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Agents, ServeOnlyOneForANameAndMakeRoomWhenKilled) {
  ChildProcess agent = startAgent();
  for (int i = 0; i < 3; ++i) {
    ChildProcess second({executableOf("GantrelAgent")});
    const std::string written = second.readAllErrors();
    EXPECT_NE(written.find("Agent init "), std::string::npos);
    EXPECT_EQ(written.find('\n'), written.size() - 1) << "one line only";
    EXPECT_EQ(second.wait(), 69);
    EXPECT_TRUE(reachable());
    agent.signal(SIGKILL);
    agent.wait();
    agent = startAgent();
  }
}

TEST_F(Agents, SayWhatEndedThemByTheirStatusAlone) {
  namespace fs = std::filesystem;
  const fs::path bare = fs::path(directory.path()) / "GantrelAgent";
  fs::copy_file(executableOf("GantrelAgent"), bare);
  const auto run = [](const std::string& program, const std::string& variable) {
    ChildProcess process({"/usr/bin/env", variable, program});
    const std::string written = process.readAllErrors();
    return std::pair(process.wait(), written);
  };
  EXPECT_EQ(run(bare, "A=b"), std::pair(78, std::string())) << "no bundle";

  const fs::path broken = fs::path(directory.path()) / "Broken.app/Contents/Linux";
  fs::create_directories(broken);
  fs::copy_file(bare, broken / "GantrelAgent");
  std::ofstream(broken / "../Info.plist") << "<plist><dict><key>CFBundleIdentifier</key>";
  EXPECT_EQ(run(broken / "GantrelAgent", "A=b"), std::pair(78, std::string()));

  const fs::path open = fs::path(directory.path()) / "open";
  fs::create_directory(open);
  fs::permissions(open, fs::perms::all);
  for (const std::string& runtime : {std::string("/nowhere"), open.string(), std::string(bare)}) {
    const auto [status, written] = run(executableOf("GantrelAgent"), "XDG_RUNTIME_DIR=" + runtime);
    EXPECT_EQ(status, 69) << runtime;
    EXPECT_EQ(written.find('\n'), written.size() - 1) << "the Agent init line, and nothing else";
  }
}

// The service manager's part is played by its own tool for that.
TEST_F(Agents, ServeTheSocketTheyAreHandedAndLeaveAWaitingOneAlone) {
  ASSERT_TRUE(std::filesystem::create_directory(directory.path() + "/gantrel"));
  ::chmod((directory.path() + "/gantrel").c_str(), 0700);
  ChildProcess activator({"systemd-socket-activate", "--listen=" + socketPath(),
                          "--fdname=" + agentAppBundleIdentifier.utf8(), "--setenv=XDG_RUNTIME_DIR",
                          executableOf("GantrelAgent")});
  ASSERT_TRUE(TestSupport::eventually([&] { return std::filesystem::exists(socketPath()); }));
  struct stat before {};
  ASSERT_EQ(::stat(socketPath().c_str(), &before), 0);

  ChildProcess byHand({executableOf("GantrelAgent")});
  byHand.readAllErrors();
  EXPECT_EQ(byHand.wait(), 69);
  const auto listener = NSXPCListener::anonymousListener();
  ASSERT_TRUE(TestSupport::eventually([&] { return reachable(); }));
  EXPECT_EQ(connect()->registerEndpoint(listener->endpoint(), "a"_text), true);
  struct stat after {};
  ASSERT_EQ(::stat(socketPath().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(Agents, LeaveNobodyWaitingWhenTheyGo) {
  ChildProcess agent = startAgent();
  std::promise<NSXPCConnectionError> told;
  const auto handler = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
  handler->connect([&](NSXPCConnectionError error) { told.set_value(error); });
  EXPECT_TRUE(handler->retrieveEndpoint("a"_text));
  agent.stop();
  handler->retrieveEndpoint("a"_text, [](auto) { ADD_FAILURE() << "the agent was stopped"; });
  std::promise<void> asked;
  auto waiting = std::async(std::launch::async, [&] {
    asked.set_value();
    return connect()->retrieveEndpoint("a"_text);
  });
  asked.get_future().wait();
  agent.signal(SIGKILL);
  agent.wait();
  EXPECT_EQ(waiting.get(), std::nullopt);
  EXPECT_EQ(told.get_future().get(), NSXPCConnectionError::interrupted);
  EXPECT_EQ(handler->retrieveEndpoint("a"_text), std::nullopt);
  // The same handle reaches the next agent.
  agent = startAgent();
  EXPECT_TRUE(handler->retrieveEndpoint("a"_text));
}

TEST_F(Agents, AreExplainedToPeopleByTheExamples) {
  const std::string menuApp = executableOf("MenuApp");
  const auto run = [](std::vector<std::string> command) {
    ChildProcess process(command);
    const std::string output = process.readAllOutput();
    const std::string errors = process.readAllErrors();
    return std::tuple(process.wait(), output, errors);
  };
  const auto complains = [&](std::vector<std::string> command, const std::string& about) {
    const auto [status, output, errors] = run(command);
    EXPECT_EQ(status, 1) << errors;
    EXPECT_EQ(output, "");
    EXPECT_NE(errors.find(about), std::string::npos) << errors;
    EXPECT_EQ(errors.find('\n'), errors.size() - 1) << "one sentence: " << errors;
  };
  complains({menuApp, "upcoming"}, "the agent is not running");
  complains({mainApp, meetingsFile}, "the agent is not running");
  complains({mainApp, "/nowhere"}, "missing or not a property list");
  complains({mainApp, executableOf("MainApp") + "/../../Info.plist"}, "missing or not");
  complains({mainApp, GANTREL_BUILD_DIR "/MainApp.app/Contents/Info.plist"},
            "not a list of meetings");
  complains({mainApp}, "one argument");
  complains({menuApp, "open"}, "--help");
  complains({menuApp, "open", "\xff"}, "UTF-8");
  complains({"/usr/bin/env", "XDG_RUNTIME_DIR=/nowhere\x1b[31m", menuApp, "upcoming"},
            "/nowhere\\x1b");
  complains({"/usr/bin/env", "XDG_RUNTIME_DIR=/usr", menuApp, "new"}, "open to other users");

  ChildProcess agent = startAgent();
  complains({menuApp, "upcoming"}, "the main application is not running");
  ChildProcess application({mainApp, meetingsFile});
  ASSERT_TRUE(application.readLine());
  const auto [status, output, errors] = run({menuApp, "upcoming"});
  EXPECT_EQ(status, 0) << errors;
  EXPECT_NE(output.find("Weekly planning"), std::string::npos);
  EXPECT_EQ(std::get<0>(run({menuApp, "new"})), 0);
  EXPECT_NE(std::get<1>(run({menuApp, "upcoming"})).find("New meeting"), std::string::npos);
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
