// Text: Unicode text as the product compares it.
//
// A Text is valid UTF-8, embedded NULs allowed. Two texts are equal when they are canonically
// equivalent (Unicode Standard, section 3.7): "é" written as one code point equals "e" followed by
// a combining acute accent. Case counts. Bytes that are not UTF-8 never become a Text.
//
// The canonical form is computed once, when the text is made, in O(n log n), so that comparing and
// hashing later, on a queue that others wait for, is as cheap as for bytes. Pure ASCII text, the
// common case, is its own canonical form and stores none.
//
// The hash has a key of the process's own (KeyedHash.h): strangers choose identifiers, and must not
// be able to choose ones that a table holds in one bucket.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Platform {

// A value: copies are independent. Any thread.
class Text {
 public:
  Text() = default;

  // None when `bytes` is not valid UTF-8.
  static std::optional<Text> fromUtf8(std::string bytes);
  // Becomes the text that fromUtf8 would give. False, and nothing changes, when there is none.
  bool assignUtf8(std::string_view bytes);

  // Whether fromUtf8 would give a text.
  static bool isUtf8(std::string_view bytes);

  // The text as it was given, not its canonical form.
  const std::string& utf8() const { return bytes_; }
  bool isEmpty() const { return bytes_.empty(); }

  // Equal for equal texts, within this process; another one has other hashes.
  std::size_t hash() const;

  friend bool operator==(const Text& a, const Text& b) { return a.canonical() == b.canonical(); }
  // An order for sorted containers: by the canonical form's bytes, not a language's collation.
  friend std::strong_ordering operator<=>(const Text& a, const Text& b) {
    return a.canonical() <=> b.canonical();
  }
  friend Text operator+(const Text& a, const Text& b);

 private:
  void set(std::string validUtf8, std::size_t asciiLength);
  const std::string& canonical() const { return canonical_ ? *canonical_ : bytes_; }

  std::string bytes_;
  std::shared_ptr<const std::string> canonical_;  // null: bytes_ is canonical already
};

// A text in the source. The literal must be UTF-8; one that is not stops the process.
Text operator""_text(const char* literal, std::size_t length);

}  // namespace Platform

// Not noexcept, so that a table keeps each entry's hash rather than makes it anew.
template <>
struct std::hash<Platform::Text> {
  std::size_t operator()(const Platform::Text& text) const { return text.hash(); }
};
