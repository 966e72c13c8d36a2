#include "Platform/Runtime/Logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

// As a child of its own, since the log goes to standard error.
TEST(Logger, CountsWhatAFullDiskLost) {
  if (!::getenv("GANTREL_TWIN")) {
    TestSupport::ChildProcess twin(
        {"/proc/self/exe", "--gtest_filter=Logger.CountsWhatAFullDiskLost"}, {"GANTREL_TWIN=1"});
    const std::string log = twin.readAllErrors();
    EXPECT_NE(log.find("Z 3 log lines dropped (Platform/Runtime/Logger:0 info)\n"), log.npos)
        << log;
    EXPECT_TRUE(log.ends_with("Z there is room again (Tests:2 test())\n")) << log;
    return;
  }
  const int standardError = ::dup(STDERR_FILENO);
  ::dup2(::open("/dev/full", O_WRONLY), STDERR_FILENO);
  for (int i = 0; i < 3; ++i) {
    Logger::sharedInstance().info({"lost"}, "Tests", "test()", 1);
    Logger::sharedInstance().flush();
  }
  ::dup2(standardError, STDERR_FILENO);
  Logger::sharedInstance().info({"there is room again"}, "Tests", "test()", 2);
  Logger::sharedInstance().flush();
}

}  // namespace
}  // namespace Platform
