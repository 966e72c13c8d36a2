// A desktop's opener for tests: a script, first on PATH, that writes down how it was started.
#pragma once

#include "Tests/Support/TestProcess.h"

namespace TestSupport {

// One folder for a test: it alone is on PATH, so that no opener of the machine is ever started.
class StandInOpeners {
 public:
  StandInOpeners() { ::setenv("PATH", folder_.path().c_str(), 1); }
  ~StandInOpeners() { ::setenv("PATH", path_.c_str(), 1); }

  // The script writes down how it was started, and then runs `then`.
  void add(const std::string& name, const std::string& then) {
    std::ofstream(file(name)) << "#!/bin/sh\nprintf '%s|' \"${0##*/}\" \"$@\" > "
                              << file("arguments") << "\nPATH=/bin:/usr/bin\n"
                              << then << "\n";
    std::filesystem::permissions(file(name), std::filesystem::perms::owner_all);
  }

  // What an opener was started with: its name, then its arguments, a bar after each. Empty when
  // none was started since this was last asked.
  std::string arguments() {
    std::ifstream written(file("arguments"));
    std::string all;
    std::getline(written, all);
    std::filesystem::remove(file("arguments"));
    return all;
  }

  std::string file(const std::string& name) const { return folder_.path() + "/" + name; }

 private:
  const std::string path_ = ::getenv("PATH");
  PrivateRuntimeDirectory folder_;
};

}  // namespace TestSupport
