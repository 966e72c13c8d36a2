// Value: what a property list, a message or a change notification may hold: nil, a Boolean, an
// integer, a real, text, data, a date, an array, a dictionary, or a reference to an object (in
// messages: an endpoint).
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "Platform/Runtime/NSDate.h"
#include "Platform/Runtime/NSObject.h"
#include "Platform/Runtime/Text.h"

namespace Platform {

using Data = std::vector<std::byte>;

// Integers of up to 64 bits; characters are none.
template <class T>
concept PlainInteger = std::integral<T> && sizeof(T) <= sizeof(std::uint64_t) &&
                       !std::same_as<T, bool> && !std::same_as<T, char> &&
                       !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
                       !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

// Copies are independent, save that a copied object reference names the same object. Any thread, as
// for any value. Accessors give none or null when the value is of another kind.
class Value {
 public:
  using Array = std::vector<Value>;
  using Dictionary = std::map<Text, Value>;

  Value() = default;                                             // nil
  Value(std::same_as<bool> auto boolean) : content_(boolean) {}  // a pointer is none
  template <PlainInteger Integer>
  Value(Integer integer) {
    // One form for one number, so that equal integers are equal values: negative ones are signed.
    if (integer < 0) {
      content_ = static_cast<std::int64_t>(integer);
    } else {
      content_ = static_cast<std::uint64_t>(integer);
    }
  }
  Value(std::floating_point auto real) : content_(static_cast<double>(real)) {}
  Value(Text text) : content_(std::move(text)) {}
  Value(Data data) : content_(std::move(data)) {}
  Value(NSDate date) : content_(date) {}
  Value(Array array) : content_(std::move(array)) {}
  Value(Dictionary dictionary) : content_(std::move(dictionary)) {}
  template <std::derived_from<NSObject> Object>
  Value(std::shared_ptr<Object> object) {
    if (object) content_ = std::shared_ptr<NSObject>(std::move(object));
  }

  bool isNil() const { return std::holds_alternative<std::monostate>(content_); }
  std::optional<bool> asBoolean() const;
  std::optional<std::uint64_t> asUnsigned() const;  // none for a negative integer
  std::optional<std::int64_t> asSigned() const;     // none for an integer beyond its range
  std::optional<double> asReal() const;             // none for an integer
  const Text* asText() const { return std::get_if<Text>(&content_); }
  const Data* asData() const { return std::get_if<Data>(&content_); }
  const NSDate* asDate() const { return std::get_if<NSDate>(&content_); }
  const Array* asArray() const { return std::get_if<Array>(&content_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&content_); }
  // Null also when the object is not an `Object`.
  template <class Object = NSObject>
  std::shared_ptr<Object> asObject() const {
    const auto* object = std::get_if<std::shared_ptr<NSObject>>(&content_);
    return object ? std::dynamic_pointer_cast<Object>(*object) : nullptr;
  }

  friend bool operator==(const Value&, const Value&) = default;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, Text, Data, NSDate, Array,
               Dictionary, std::shared_ptr<NSObject>>
      content_;
};

using Array = Value::Array;
using Dictionary = Value::Dictionary;

}  // namespace Platform
