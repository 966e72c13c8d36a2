#include "Platform/XPC/Decoder.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

#include "Platform/Runtime/Text.h"
#include "Platform/XPC/Codec.h"

namespace Platform {
namespace {

using Wire::Major;

// What the items of a frame's arrays and maps may take in memory, in bytes: as much as values do.
constexpr std::size_t mostRoom = Wire::mostItems * sizeof(Value);

constexpr std::uint8_t majorShift = 5;
// Also the argument of the smallest 64-bit signed integer: -1 minus it is the number.
constexpr auto mostPositive = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

}  // namespace

void Decoder::malformed() {
  malformed_ = true;
  rest_ = {};
}

std::optional<Wire::Major> Decoder::nextMajor() const {
  if (rest_.empty()) return std::nullopt;
  return static_cast<Major>(std::to_integer<std::uint8_t>(rest_[0]) >> majorShift);
}

bool Decoder::isNext(std::uint8_t firstByte) const {
  return !rest_.empty() && std::to_integer<std::uint8_t>(rest_[0]) == firstByte;
}

std::optional<Decoder::Head> Decoder::head() {
  if (rest_.empty()) {
    malformed();
    return std::nullopt;
  }
  const auto firstByte = std::to_integer<std::uint8_t>(rest_[0]);
  Head head{static_cast<Major>(firstByte >> majorShift), firstByte,
            static_cast<std::uint64_t>(firstByte & Wire::argumentMask)};
  std::size_t width = 0;
  if (head.argument >= Wire::oneByteFollows) {
    const std::uint64_t code = head.argument - Wire::oneByteFollows;
    width = std::size_t{1} << (code & 3);
    // Not indefinite lengths, nor reserved codes.
    if (code > 3 || width >= rest_.size()) {
      malformed();
      return std::nullopt;
    }
    head.argument = 0;
    for (const std::byte byte : rest_.subspan(1, width)) {
      head.argument = head.argument << 8 | std::to_integer<std::uint64_t>(byte);
    }
    // Only the shortest form is well-formed; a real's argument is no number to be shortened.
    const std::uint64_t least = width == 1 ? Wire::oneByteFollows : std::uint64_t{1} << (4 * width);
    if (head.major != Major::simple && head.argument < least) malformed();
  }
  if (head.major == Major::simple && firstByte != Wire::falseByte && firstByte != Wire::trueByte &&
      firstByte != Wire::nullByte && firstByte != Wire::realByte) {
    malformed();
  }
  if (malformed_) return std::nullopt;
  rest_ = rest_.subspan(1 + width);
  return head;
}

// What a typed read does with an item of another type.
void Decoder::passOver(std::span<const std::byte> itemAndRest) {
  rest_ = itemAndRest;
  skip();
  wrongClass();
}

std::uint64_t Decoder::argumentOfLong(Major major) {
  const auto start = rest_;
  const auto read = head();
  if (!read) return 0;
  if (read->major == major) return read->argument;
  passOver(start);
  return 0;
}

std::int64_t Decoder::signedInteger() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return 0;
  const bool isNegative = read->major == Major::negativeInteger;
  if (isNegative && read->argument > mostPositive) malformed();
  if (!isNegative && (read->major != Major::unsignedInteger || read->argument > mostPositive)) {
    passOver(start);
    return 0;
  }
  return static_cast<std::int64_t>(isNegative ? ~read->argument : read->argument);
}

double Decoder::real() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return 0;
  if (read->firstByte == Wire::realByte) return std::bit_cast<double>(read->argument);
  passOver(start);
  return 0;
}

std::span<const std::byte> Decoder::bytes() {
  return take(argumentOf(Major::bytes));
}

bool Decoder::boolean() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return false;
  if (read->firstByte == Wire::trueByte) return true;
  if (read->firstByte != Wire::falseByte) passOver(start);
  return false;
}

NSDate Decoder::date() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return {};
  if (read->major == Major::tag && read->argument == Wire::dateTag) {
    const auto content = head();
    if (content && content->firstByte == Wire::realByte) {
      return {std::bit_cast<double>(content->argument)};
    }
    malformed();
    return {};
  }
  passOver(start);
  return {};
}

EndpointRef Decoder::endpoint() {
  const auto start = rest_;
  std::uint64_t tag;
  if (takeShortHead(Major::tag, tag) && tag == Wire::endpointTag) {
    // An index that is not short is not of a descriptor: there are not so many.
    std::uint64_t index;
    if (takeShortHead(Major::unsignedInteger, index)) return endpointAt(index);
    malformed();
    return nullptr;
  }
  rest_ = start;
  if (head()) passOver(start);
  return nullptr;
}

bool Decoder::takeNil() {
  if (!isNext(Wire::nullByte)) return false;
  rest_ = rest_.subspan(1);
  return true;
}

// The number of items or entries that follow, all of whose claims have been checked.
std::uint64_t Decoder::enter(Major major, std::uint64_t itemsEach, std::uint64_t size) {
  const std::uint64_t count = argumentOf(major);
  if (++depth_ > Wire::deepestNesting) malformed();
  // Every item takes a byte at least, so a larger count is a lie.
  const std::uint64_t most = std::min(Wire::mostItems - items_, rest_.size()) / itemsEach;
  if (count > most) malformed();
  if (malformed_) return 0;
  items_ += count * itemsEach;
  room_ += count * size;
  if (room_ > mostRoom) wrongClass();
  return count;
}

std::string_view Decoder::key() {
  if (nextMajor() != Major::text) malformed();
  return text();
}

void Decoder::skip() {
  skip(depth_);
}

void Decoder::skipMessage() {
  skip(-Wire::arraysAroundArguments);
}

void Decoder::skip(int depth) {
  if (depth > Wire::deepestNesting) malformed();
  const auto read = head();
  if (!read) return;
  const std::uint64_t argument = read->argument;
  switch (read->major) {
    case Major::negativeInteger:
      if (argument > mostPositive) malformed();
      return;
    case Major::bytes:
      take(argument);
      return;
    case Major::text:
      if (!Text::isUtf8(characters(take(argument)))) malformed();
      return;
    case Major::array:
      for (std::uint64_t i = 0; i < argument && !malformed_; ++i) skip(depth + 1);
      return;
    case Major::map:
      for (std::uint64_t i = 0; i < argument && !malformed_; ++i) {
        if (nextMajor() != Major::text) malformed();
        skip(depth + 1);
        skip(depth + 1);
      }
      return;
    case Major::tag: {
      const auto content = head();
      const bool isDate =
          argument == Wire::dateTag && content && content->firstByte == Wire::realByte;
      const bool isEndpoint = argument == Wire::endpointTag && content &&
                              content->major == Major::unsignedInteger &&
                              content->argument < descriptors_.size();
      if (!isDate && !isEndpoint) malformed();
      return;
    }
    case Major::unsignedInteger:
    case Major::simple:
      return;
  }
}

Value Decoder::value() {
  const auto read = [this]<class T>(T value) {
    decode(*this, value);
    return Value(std::move(value));
  };
  switch (nextMajor().value_or(Major::simple)) {
    case Major::unsignedInteger:
      return unsignedInteger();
    case Major::negativeInteger:
      return signedInteger();
    case Major::bytes:
      return read(Data());
    case Major::text:
      return read(Text());
    case Major::array:
      return read(Array());
    case Major::map:
      return read(Dictionary());
    case Major::tag:
      return tagged();
    case Major::simple:
      break;
  }
  if (takeNil()) return {};
  if (isNext(Wire::realByte)) return real();
  return boolean();
}

Value Decoder::tagged() {
  const auto start = rest_;
  const auto tag = head();
  rest_ = start;
  if (tag && tag->argument == Wire::dateTag) return date();
  return endpoint();
}

EndpointRef Decoder::endpointAt(std::uint64_t index) {
  if (index >= descriptors_.size()) {
    malformed();
    return nullptr;
  }
  UniqueFd& descriptor = descriptors_[index];
  EndpointRef endpoint;
  if (descriptor.isValid()) {  // one that is named a second time is gone already
    endpoint = policy_ == Descriptors::checked
                   ? NSXPCListenerEndpoint::adopt(descriptor)
                   : std::make_shared<NSXPCListenerEndpoint>(std::move(descriptor));
  }
  if (!endpoint) wrongClass();
  return endpoint;
}

}  // namespace Platform
