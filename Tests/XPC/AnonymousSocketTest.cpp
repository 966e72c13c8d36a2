#include "Platform/XPC/AnonymousSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "Platform/Runtime/RuntimeDirectory.h"
#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

TEST(AnonymousSocket, IsMadeThoughAnotherProcessKeepsTheDirectoryLocked) {
  const TestSupport::PrivateRuntimeDirectory directory;
  // Locks belong to what was opened, so this might as well be another process.
  const UniqueFd other(::open(runtimeDirectory().value().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  EXPECT_TRUE(makeAnonymousSocket());
}

}  // namespace
}  // namespace Platform
