#include "Platform/Workspace/LogExcerpt.h"

#include "Tests/Support/TestProcess.h"

namespace Platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class LogExcerpt : public testing::Test {
 protected:
  LogExcerpt() {
    fs::create_directories(root_ / "journal");
    ::setenv("XDG_STATE_HOME", (root_ / "state").c_str(), 1);
    for (const auto& [name, identifier] : {std::pair("Ours.app", "a.b"), {"Other.app", "c.d"}}) {
      fs::create_directories(root_ / name / "Contents");
      std::ofstream(root_ / name / "Contents/Info.plist")
          << "<plist><dict><key>CFBundleIdentifier</key><string>" << identifier
          << "</string></dict></plist>";
    }
  }

  // A line of the journal to be: when, whose, from which bundle, and its message as it is stored.
  void log(int ago, uid_t user, const std::string& bundle, const std::string& message) {
    const std::string size = static_cast<char>(message.size()) + std::string(7, '\0');
    entries_ += "__REALTIME_TIMESTAMP=" + std::to_string(::time(nullptr) - ago) + "000000" +
                "\n__MONOTONIC_TIMESTAMP=" + std::to_string(++count_) +
                "\n_BOOT_ID=0123456789abcdef0123456789abcdef\n_UID=" + std::to_string(user) +
                "\n_EXE=" + (root_ / (bundle + ".app/Contents/Linux/x")).string() +
                "\n_PID=42\nSYSLOG_IDENTIFIER=x\nMESSAGE\n" + size + message +
                "\nCODE_FILE=F\nCODE_LINE=7\nCODE_FUNC=f()\n\n";
  }

  // The text of the excerpt, without the times; none when there is no excerpt.
  std::optional<std::string> excerpt() {
    std::ofstream(root_ / "entries") << entries_;
    TestSupport::ChildProcess writer({"/lib/systemd/systemd-journal-remote", "--output",
                                      root_ / "journal/x.journal", root_ / "entries"});
    EXPECT_EQ(writer.wait(), 0) << writer.readAllErrors();
    const auto path = writeLogExcerpt({"a.b"_text, "a.b.menu"_text}, 1h, root_ / "journal");
    if (!path) return std::nullopt;
    EXPECT_EQ(*path, file_);
    std::ifstream file(file_);
    std::string all;
    for (std::string line; std::getline(file, line);) all += line.substr(line.find(' ') + 1) + "\n";
    return all;
  }

  TestSupport::PrivateRuntimeDirectory folder_;
  const fs::path root_ = folder_.path();
  const fs::path file_ = root_ / "state/gantrel/log.txt";
  std::string entries_;
  int count_ = 0;
};

TEST_F(LogExcerpt, HoldsTheRecentLinesOfTheUsersOwnApplicationsForTheUserAlone) {
  fs::create_directories(file_.parent_path());
  fs::permissions(file_.parent_path(), fs::perms::owner_all);  // whatever the umask
  std::ofstream(root_ / "precious") << "kept";
  fs::create_symlink(root_ / "precious", file_);
  EXPECT_EQ(excerpt(), std::nullopt) << "no lines";
  log(7200, ::getuid(), "Ours", "old");
  log(60, ::getuid(), "Ours", "one");
  log(50, ::getuid() + 1, "Ours", "of somebody else");
  log(40, ::getuid(), "Other", "of another application");
  log(20, ::getuid(), "Ours", "tw\x1b[31mo\nthree");
  EXPECT_EQ(excerpt(), "x[42] one (F:7 f())\nx[42] tw\\x1b[31mo\\x0athree (F:7 f())\n");
  EXPECT_EQ(fs::file_size(root_ / "precious"), 4u);
  const fs::file_status status = fs::symlink_status(file_);
  EXPECT_TRUE(fs::is_regular_file(status));
  EXPECT_EQ(status.permissions(), fs::perms::owner_read | fs::perms::owner_write);
  fs::permissions(file_.parent_path(), fs::perms::all);
  EXPECT_EQ(excerpt(), std::nullopt) << "a folder in which others may write";
}

}  // namespace
}  // namespace Platform
