#include "Shared/BundleVersion.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

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

class BundleVersion : public testing::Test {
 protected:
  void write(const std::string& entries) {
    std::ofstream(app_ / "Contents/Info.plist") << "<plist><dict>" << entries << "</dict></plist>";
  }

  TestSupport::PrivateRuntimeDirectory folder_;
  const fs::path app_ = fs::path(folder_.path()) / "X.app";
};

// The application runs on while its information changes.
TEST_F(BundleVersion, OfTheApplicationIsReadAfreshFromItsOwnBundle) {
  fs::create_directories(app_ / "Contents/Linux");
  fs::copy(GANTREL_BUILD_DIR "/Tests/test_display", app_ / "Contents/Linux/x");
  write(shortVersion + buildVersion + entry("CFBundleIdentifier", "<string>a.b</string>"));
  TestSupport::ChildProcess application({app_ / "Contents/Linux/x"});
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
