#include "Platform/Runtime/NSObject.h"

#include "Platform/Runtime/Text.h"
#include "Platform/Runtime/Value.h"

namespace Platform {

void NSObject::observeValueForKeyPath(const std::optional<Text>&, const std::shared_ptr<NSObject>&,
                                      const std::map<Text, Value>*, void*) {}

}  // namespace Platform
