#include "Shared/BundleVersion.h"

#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {
namespace {

using namespace Platform;
namespace fs = std::filesystem;

std::string entry(const std::string& key, const std::string& value) {
  return "<key>" + key + "</key>" + value;
}
const std::string shortVersion = entry("CFBundleShortVersionString", "<string>2.4.1</string>");
const std::string buildVersion = entry("CFBundleVersion", "<string> 311 </string>");

// The application runs on while its information changes.
TEST(BundleVersion, OfTheApplicationIsReadAfreshFromItsOwnBundle) {
  const TestSupport::PrivateRuntimeDirectory folder;
  const fs::path contents = fs::path(folder.path()) / "X.app/Contents";
  const auto write = [&](const std::string& entries) {
    std::ofstream(contents / "Info.plist") << "<plist><dict>" << entries << "</dict></plist>";
  };
  fs::create_directories(contents / "Linux");
  fs::copy(GANTREL_BUILD_DIR "/Tests/test_display", contents / "Linux/x");
  write(shortVersion + buildVersion + entry("CFBundleIdentifier", "<string>a.b</string>"));
  TestSupport::ChildProcess application({contents / "Linux/x"});
  const auto answer = [&](const char* question) {
    application.writeLine(question);
    return application.readLine();
  };
  EXPECT_EQ(answer("version"), "2.4.1 ( 311 )");
  EXPECT_EQ(answer("identifier"), "a.b");
  write(entry("CFBundleShortVersionString", "<string/>") + entry("CFBundleVersion", "<string/>"));
  EXPECT_EQ(answer("version"), " ()");
  EXPECT_EQ(answer("identifier"), "none");
  for (const std::string& entries :
       {shortVersion, buildVersion, shortVersion + entry("CFBundleVersion", "<real>2.4</real>"),
        shortVersion + buildVersion + "<broken>"}) {
    write(entries);
    EXPECT_EQ(answer("version"), "none") << entries;
  }
}

}  // namespace
}  // namespace Gantrel_Sync_Helper
