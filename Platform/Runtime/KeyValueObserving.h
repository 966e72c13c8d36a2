// The change map of key-value observing: its keys, and the kinds of change. The keys are never
// destroyed, since observers may still be told of changes while a process ends.
#pragma once

#include <cstdint>

#include "Platform/Runtime/Text.h"

namespace Platform {

// The kind of change: an unsigned integer, one of NSKeyValueChange.
inline const Text& NSKeyValueChangeKindKey = *new Text("kind"_text);
// For an insertion: the array of inserted objects.
inline const Text& NSKeyValueChangeNewKey = *new Text("new"_text);
// For a removal: the array of removed objects.
inline const Text& NSKeyValueChangeOldKey = *new Text("old"_text);

enum class NSKeyValueChange : std::uint64_t {
  setting = 1,
  insertion = 2,
  removal = 3,
  replacement = 4,
};

}  // namespace Platform
