// An application for the tests to put into a bundle, or into surroundings that lack something:
// answers each line of its input, "version", "identifier" or "time", with one line.
#include <iostream>
#include <string>

#include "Shared/BundleVersion.h"
#include "Shared/DateFormatting.h"

using namespace Gantrel_Sync_Helper;
using Platform::NSBundle;
using Platform::Text;

int main() {
  const Text none = Text::fromUtf8("none").value();
  const NSBundle elsewhere("/");
  std::string question;
  while (std::getline(std::cin, question)) {
    Text answer = none;
    if (question == "version") answer = appVersion(elsewhere).value_or(none);
    if (question == "identifier") answer = NSBundle::mainBundle().bundleIdentifier().value_or(none);
    if (question == "time") answer = hhmm({1457186820});  // 2016-03-05 14:07:00 UTC
    std::cout << answer.utf8() << std::endl;
  }
}
