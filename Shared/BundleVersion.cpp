#include "Shared/BundleVersion.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

std::optional<Text> information(const NSBundle& bundle, const Text& key) {
  const std::optional<Dictionary> dictionary = bundle.infoDictionary();
  if (!dictionary) return std::nullopt;
  const auto entry = dictionary->find(key);
  const Text* const text = entry == dictionary->end() ? nullptr : entry->second.asText();
  return text ? std::optional(*text) : std::nullopt;
}

}  // namespace

std::optional<Text> bundleShortVersion(const NSBundle& bundle) {
  return information(bundle, "CFBundleShortVersionString"_text);
}

std::optional<Text> bundleVersion(const NSBundle& bundle) {
  return information(bundle, "CFBundleVersion"_text);
}

std::optional<Text> appVersion(const NSBundle&) {
  const NSBundle bundle = NSBundle::mainBundle();
  const std::optional<Text> version = bundleShortVersion(bundle);
  if (!version) return std::nullopt;
  const std::optional<Text> build = bundleVersion(bundle);
  if (!build) return std::nullopt;
  return *version + " ("_text + *build + ")"_text;
}

}  // namespace Gantrel_Sync_Helper
