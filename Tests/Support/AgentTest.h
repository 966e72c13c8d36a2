// The agent as a process of its own, for tests that attack it.
#pragma once

#include <sys/stat.h>

#include "Platform/XPC/NSXPCListener.h"
#include "Shared/EndPointHandler.h"
#include "Shared/GApp.h"
#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {

class AgentTest : public testing::Test {
 protected:
  std::string socketPath() const {
    return directory.path() + "/gantrel/" + agentAppBundleIdentifier.utf8() + ".socket";
  }

  // An agent that can be reached, started by a line for the shell that ends in `exec "$0"`.
  static TestSupport::ChildProcess startAgent(const std::string& line = "exec \"$0\" 2>/dev/null") {
    TestSupport::ChildProcess agent(
        {"bash", "-c", line, TestSupport::executableOf("GantrelAgent")});
    EXPECT_TRUE(
        TestSupport::eventually([] { return connect()->retrieveEndpoint({}).has_value(); }));
    return agent;
  }

  static std::shared_ptr<EndPointHandler> connect() {
    auto handler = EndPointHandler::initWithServiceName(agentAppBundleIdentifier);
    handler->connect();
    return handler;
  }

  // What another application finds under the identifier now: a socket's inode, or 0.
  static unsigned long found(const Platform::Text& identifier) {
    return inode(connect()->retrieveEndpoint(identifier).value_or(nullptr));
  }
  static unsigned long inode(const Platform::EndpointRef& endpoint) {
    struct stat status {};
    return endpoint && ::fstat(endpoint->descriptor(), &status) == 0 ? status.st_ino : 0;
  }

  TestSupport::PrivateRuntimeDirectory directory;
};

}  // namespace Gantrel_Sync_Helper
