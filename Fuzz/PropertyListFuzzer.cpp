// A property list as anybody may have written it, such as an Info.plist.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fuzz/Require.h"
#include "Platform/Foundation/PropertyList.h"

using namespace Platform;

namespace {

std::size_t depthOf(const Value& value) {
  std::size_t deepest = 0;
  if (const Array* array = value.asArray()) {
    for (const Value& item : *array) deepest = std::max(deepest, depthOf(item));
    return deepest + 1;
  }
  if (const Dictionary* dictionary = value.asDictionary()) {
    for (const auto& entry : *dictionary) deepest = std::max(deepest, depthOf(entry.second));
    return deepest + 1;
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (const auto list = propertyListFromData(bytes)) {
    require(depthOf(*list) <= propertyListDepthLimit && size <= propertyListSizeLimit);
  }
  return 0;
}
