// NSObject: the root class of everything that the platform calls back or holds by reference.
#pragma once

#include <map>
#include <memory>
#include <optional>

namespace Platform {

class Text;
class Value;

// Reference-counted: always created by std::make_shared or a static factory, held by shared_ptr.
class NSObject : public std::enable_shared_from_this<NSObject> {
 public:
  NSObject() = default;
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;
  virtual ~NSObject() = default;

  // Called for each change of a property that this object observes, with the context given when the
  // observation was registered. `change` is null when nothing is known of it; its keys are those of
  // KeyValueObserving.h. The base class's handler does nothing. Runs on the observation's queue.
  virtual void observeValueForKeyPath(const std::optional<Text>& keyPath,
                                      const std::shared_ptr<NSObject>& object,
                                      const std::map<Text, Value>* change, void* context);
};

}  // namespace Platform
