// NSBundle: a folder that holds an application, and what the application says about itself:
//
//   X.app/Contents/Info.plist      the information, a property list (PropertyList.h)
//   X.app/Contents/Linux/x         the executable
#pragma once

#include <optional>
#include <string>

#include "Platform/Runtime/Value.h"

namespace Platform {

// A value: it names the folder and keeps nothing of its content, so that every question is answered
// from the files as they are then. Any thread.
class NSBundle {
 public:
  // The bundle at `path`, the folder X.app, whether there is one or not.
  explicit NSBundle(std::string path) : path_(std::move(path)) {}

  // The bundle of the running application, found from its executable, wherever that lies now. An
  // executable that is not in a Contents/Linux folder has a bundle without information.
  static NSBundle mainBundle();

  // The same for another executable, given by its path.
  static NSBundle bundleOfExecutable(const std::string& path);

  // The folder X.app; empty when there is none.
  const std::string& bundlePath() const { return path_; }

  // None when Info.plist is missing, broken, or anything but a dictionary.
  std::optional<Dictionary> infoDictionary() const;

  // CFBundleIdentifier; none when it is missing or not text.
  std::optional<Text> bundleIdentifier() const;

 private:
  std::string path_;  // empty: none
};

}  // namespace Platform
