#include "Platform/Runtime/Logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <sstream>
#include <string>

#include "Platform/Runtime/Escaped.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

// Standard error is a pipe that nobody reads until everything is logged.
TEST(Logger, NeverWaitsForAStuckDestinationAndCountsWhatItDropped) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const UniqueFd standardError(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
  ::dup2(writing.get(), STDERR_FILENO);
  writing.reset();

  // More than the pipe, the lines the writer holds and the lines that wait for it take together.
  constexpr int logged = 250'000;
  for (int i = 0; i < logged; ++i) {
    Logger::sharedInstance().info(
        {"a line of some length, as the agent writes: ", std::to_string(i)}, "Tests", "test()", 1);
  }
  auto all = std::async(std::launch::async, [&] {
    std::ifstream stream("/dev/fd/" + std::to_string(reading.get()));
    return std::string(std::istreambuf_iterator(stream), {});
  });
  Logger::sharedInstance().flush();
  Logger::sharedInstance().info({"last"}, "Tests", "test()", 2);
  Logger::sharedInstance().flush();
  ::dup2(standardError.get(), STDERR_FILENO);

  const std::string text = all.get();
  int written = 0;
  int dropped = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::string message = line.substr(line.find("Z ") + 2);
    if (message.find(" log lines dropped (") != std::string::npos) {
      dropped += std::stoi(message);
    } else if (message.starts_with("a line")) {
      EXPECT_TRUE(message.ends_with(": " + std::to_string(written) + " (Tests:1 test())"));
      ++written;
    }
  }
  EXPECT_GT(dropped, 0);
  EXPECT_EQ(written + dropped, logged);
  EXPECT_NE(text.find("Z last (Tests:2 test())\n"), std::string::npos);
}

TEST(Escaped, LetsNothingThroughThatCommandsATerminalOrForgesALine) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {"caf\u00e9 \U0001f600", "caf\u00e9 \U0001f600"},
      {"a\nb\r\t\x1b[31m\x7f", "a\\x0ab\\x0d\\x09\\x1b[31m\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"back\\x41", "back\\\\x41"},
      {"\u0085 \u009b1m \u2028 \u202e \u2066", "\\u{85} \\u{9b}1m \\u{2028} \\u{202e} \\u{2066}"},
      {"\xff\xc3", "\\xff\\xc3"},
  };
  for (const auto& [text, safe] : cases) EXPECT_EQ(escaped(text), safe);
}

}  // namespace
}  // namespace Platform
