#include "Platform/Runtime/ClosingTogether.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace Platform {
namespace {

TEST(ClosingTogether, ClosesWhatItWasGivenAndNothingInBetween) {
  const auto isOpen = [](int number) { return ::fcntl(number, F_GETFD) != -1; };
  UniqueFd owned[100];
  for (UniqueFd& each : owned) each.reset(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 500));
  {
    ClosingTogether together;
    for (int i = 0; i < 99; ++i) {
      if (i % 10 != 3) ClosingTogether::close(std::move(owned[i]));
    }
    EXPECT_TRUE(isOpen(598));
    ClosingTogether::closeNow();
    for (int i = 0; i < 99; ++i) EXPECT_EQ(isOpen(500 + i), i % 10 == 3) << i;
    ClosingTogether::close(std::move(owned[99]));
  }
  EXPECT_FALSE(isOpen(599));
  ClosingTogether::close(std::move(owned[3]));
  EXPECT_FALSE(isOpen(503));
}

}  // namespace
}  // namespace Platform
