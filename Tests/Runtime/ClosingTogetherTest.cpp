#include "Platform/Runtime/ClosingTogether.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace Platform {
namespace {

TEST(ClosingTogether, ClosesWhatItWasGivenAndNothingInBetween) {
  const auto isOpen = [](int number) { return ::fcntl(number, F_GETFD) != -1; };
  std::vector<UniqueFd> owned;
  std::vector<int> numbers;
  for (int i = 0; i < 100; ++i) {
    owned.emplace_back(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    numbers.push_back(owned.back().get());
  }
  {
    ClosingTogether together;
    for (std::size_t i = 0; i < 99; ++i) {
      if (i % 10 != 3) ClosingTogether::close(std::move(owned[i]));
    }
    EXPECT_TRUE(isOpen(numbers[98]));
    ClosingTogether::closeNow();
    for (std::size_t i = 0; i < 99; ++i) EXPECT_EQ(isOpen(numbers[i]), i % 10 == 3) << i;
    ClosingTogether::close(std::move(owned[99]));
  }
  EXPECT_FALSE(isOpen(numbers[99]));
  ClosingTogether::close(std::move(owned[3]));
  EXPECT_FALSE(isOpen(numbers[3]));
}

}  // namespace
}  // namespace Platform
