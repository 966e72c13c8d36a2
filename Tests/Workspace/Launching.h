// Starting and ending applications (TestApplication.cpp) in a runtime directory of the test's own.
#pragma once

#include "Tests/Support/TestProcess.h"

namespace TestSupport {

class RunningApplicationsTest : public testing::Test {
 protected:
  PrivateRuntimeDirectory runtime;
  const std::filesystem::path folder =
      std::filesystem::path(runtime.path()) / "gantrel/applications";
};

inline const std::string testApplication = GANTREL_BUILD_DIR "/Tests/test_application";

// Returns when it has checked in.
inline ChildProcess launch(const std::string& identifier, const char* mode = "as") {
  ChildProcess application({testApplication, mode, identifier});
  EXPECT_EQ(application.readLine(), "running");
  return application;
}

inline void kill(ChildProcess& application) {
  application.signal(SIGKILL);
  application.wait();
}

}  // namespace TestSupport
