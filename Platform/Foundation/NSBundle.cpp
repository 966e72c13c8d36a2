#include "Platform/Foundation/NSBundle.h"

#include <filesystem>
#include <system_error>

#include "Platform/Foundation/PropertyList.h"

namespace Platform {

NSBundle NSBundle::mainBundle() {
  std::error_code error;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return bundleOfExecutable(executable.string());
}

NSBundle NSBundle::bundleOfExecutable(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  const std::filesystem::path contents = folder.parent_path();
  if (folder.filename() != "Linux" || contents.filename() != "Contents") {
    return NSBundle(std::string());
  }
  return NSBundle(contents.parent_path().string());
}

std::optional<Dictionary> NSBundle::infoDictionary() const {
  if (path_.empty()) return std::nullopt;
  const std::optional<Value> list = propertyListFromFile(path_ + "/Contents/Info.plist");
  const Dictionary* const dictionary = list ? list->asDictionary() : nullptr;
  return dictionary ? std::optional(*dictionary) : std::nullopt;
}

std::optional<Text> NSBundle::bundleIdentifier() const {
  const std::optional<Dictionary> information = infoDictionary();
  if (!information) return std::nullopt;
  const auto entry = information->find("CFBundleIdentifier"_text);
  const Text* const text = entry == information->end() ? nullptr : entry->second.asText();
  return text ? std::optional(*text) : std::nullopt;
}

}  // namespace Platform
