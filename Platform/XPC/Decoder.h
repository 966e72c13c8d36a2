// The decoder: reads one frame's payload, item by item.
//
// It distinguishes two faults. A payload that is not of the wire's format is malformed, and its
// connection has no future. A well-formed item of another type than the interface declares is an
// argument of the wrong class: the message is refused and nothing else happens. After either,
// decoding goes on without effect, so callers ask once, at the end.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"
#include "Platform/Runtime/Value.h"
#include "Platform/XPC/Budget.h"
#include "Platform/XPC/Encoder.h"
#include "Platform/XPC/ForeignDescriptors.h"
#include "Platform/XPC/Wire.h"

namespace Platform {

// A frame as it arrived.
struct Frame {
  std::span<const std::byte> payload;  // lent by whoever received it, until it is kept
  std::vector<std::byte> kept;
  ForeignDescriptors descriptors;
  bool lacksDescriptors =
      false;        // this process had no room for some of them: it is not carried out
  BudgetPart part;  // a large one's

  void keep(std::vector<std::byte> bytes) {
    kept = std::move(bytes);
    payload = kept;
  }
  // To be done before the payload's lender goes on.
  void keep() {
    if (kept.empty()) keep(std::vector(payload.begin(), payload.end()));
  }
};

// Whether the decoder looks at a descriptor before it passes for an endpoint. What a request brings
// is looked at, so that nothing else ever gets into a map of endpoints. An answer's is not: it goes
// to the one who asked, to whom a false one is an endpoint whose listener has gone, and the look is
// a system call.
enum class Descriptors { checked, taken };

// Reads one frame's payload, item by item. Owns nothing: the frame must outlive it.
class Decoder {
 public:
  explicit Decoder(Frame& frame, Descriptors policy = Descriptors::checked)
      : rest_(frame.payload), descriptors_(frame.descriptors.all()), policy_(policy) {}

  bool isMalformed() const { return malformed_; }
  bool isWrongClass() const { return wrongClass_; }
  bool isSound() const { return !malformed_ && !wrongClass_; }
  bool isAtEnd() const { return rest_.empty(); }

  // Each reads one item. An item of another type is passed over and makes the payload wrongClass;
  // the result is then empty.
  std::uint64_t unsignedInteger() { return argumentOf(Wire::Major::unsignedInteger); }
  std::int64_t signedInteger();  // one beyond its range is of another type, too
  double real();
  // Its bytes, UTF-8 not yet checked; valid as long as the frame.
  std::string_view text() { return characters(take(argumentOf(Wire::Major::text))); }
  std::span<const std::byte> bytes();  // valid as long as the frame
  // The number of items that follow; 0 for another type.
  std::size_t array() {
    const std::uint64_t count = argumentOf(Wire::Major::array);
    // Every item takes a byte at least, so a larger count is a lie.
    if (count > rest_.size()) malformed();
    return malformed_ ? 0 : count;
  }
  bool boolean();
  NSDate date();
  EndpointRef endpoint();
  Value value();
  bool takeNil();  // whether the item is nil, which is then read

  // Reads a value's array: `read` is called for each item, and reads it, up to the first fault. An
  // item takes `size` bytes in memory: more of them than there is room for are refused.
  template <std::invocable Read>
  void eachItem(std::size_t size, Read read) {
    for (auto left = enter(Wire::Major::array, 1, size); left > 0 && isSound(); --left) read();
    --depth_;
  }
  // The same for a map: `read` is given the key, UTF-8 not yet checked, and reads the item.
  template <std::invocable<std::string_view> Read>
  void eachEntry(std::size_t size, Read read) {
    for (auto left = enter(Wire::Major::map, 2, size); left > 0 && isSound(); --left) read(key());
    --depth_;
  }

  void skip();         // one argument or value, checked in full, without building it
  void skipMessage();  // the same for a whole payload
  void wrongClass() { wrongClass_ = true; }
  void malformed();

 private:
  struct Head {
    Wire::Major major;
    std::uint8_t firstByte;
    std::uint64_t argument;  // of a simple value or real: its bits
  };

  std::optional<Head> head();
  // The head of an item of that type, if one comes and its argument is below 65,536: most are.
  bool takeShortHead(Wire::Major major, std::uint64_t& argument) {
    if (rest_.empty()) return false;
    const auto low =
        static_cast<std::uint8_t>(std::to_integer<std::uint8_t>(rest_[0]) - Wire::firstByte(major));
    const bool isHere = low < Wire::oneByteFollows;
    const std::size_t width = isHere ? 0 : std::size_t{low} - Wire::oneByteFollows + 1;
    if (width > 2 || width >= rest_.size()) return false;
    argument = low;
    if (!isHere) argument = std::to_integer<std::uint8_t>(rest_[1]);
    if (width == 2) argument = argument << 8 | std::to_integer<std::uint8_t>(rest_[2]);
    // In its shortest form.
    if (argument < (width == 2 ? 0x100 : isHere ? 0 : Wire::oneByteFollows)) return false;
    rest_ = rest_.subspan(1 + width);
    return true;
  }
  // The argument of an item of that type. 0 for another, and when there is none.
  std::uint64_t argumentOf(Wire::Major major) {
    std::uint64_t argument;
    return takeShortHead(major, argument) ? argument : argumentOfLong(major);
  }
  std::uint64_t argumentOfLong(Wire::Major major);
  std::optional<Wire::Major> nextMajor() const;
  bool isNext(std::uint8_t firstByte) const;
  std::span<const std::byte> take(std::uint64_t length) {
    if (length > rest_.size()) {
      malformed();
      return {};
    }
    const auto taken = rest_.first(length);
    rest_ = rest_.subspan(length);
    return taken;
  }
  static std::string_view characters(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  void passOver(std::span<const std::byte> itemAndRest);
  void skip(int depth);
  EndpointRef endpointAt(std::uint64_t index);
  std::uint64_t enter(Wire::Major major, std::uint64_t itemsEach, std::uint64_t size);
  std::string_view key();
  Value tagged();

  std::span<const std::byte> rest_;
  std::span<UniqueFd> descriptors_;
  const Descriptors policy_;
  int depth_ = 0;          // of arrays and maps, in the value at hand
  std::size_t items_ = 0;  // in arrays and maps
  std::size_t room_ = 0;   // that their items take, in bytes
  bool malformed_ = false;
  bool wrongClass_ = false;
};

}  // namespace Platform
