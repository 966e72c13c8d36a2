#include "Platform/XPC/Codec.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "Platform/Runtime/Stop.h"

namespace Platform {
namespace {

using Wire::Major;

// Room for a usual message. The C library keeps blocks of up to 120 bytes at hand, and those above
// are merged and split each time.
constexpr std::size_t usualFrame = 120;

// What the items of a frame's arrays and maps may take in memory, in bytes: as much as values do.
constexpr std::size_t mostRoom = Wire::mostItems * sizeof(Value);

constexpr std::uint8_t majorShift = 5;
constexpr std::uint8_t argumentMask = 0x1F;
constexpr std::uint8_t oneByteFollows = 24;
// Also the argument of the smallest 64-bit signed integer: -1 minus it is the number.
constexpr auto mostPositive = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

void appendBigEndian(std::vector<std::byte>& out, std::uint64_t number, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::byte>(number >> shift));
  }
}

void storeLittleEndian(std::byte* out, std::uint32_t number) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::byte>(number >> (8 * i));
}

std::string_view characters(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

bool OutgoingFrame::isSendable() const {
  return bytes.size() - Wire::headerSize <= Wire::mostPayloadBytes &&
         endpoints.size() <= Wire::mostDescriptors && items <= Wire::mostItems;
}

Encoder::Encoder() {
  frame_.bytes.reserve(usualFrame);
  frame_.bytes.resize(Wire::headerSize);
}

void Encoder::head(Major major, std::uint64_t argument) {
  const auto high = static_cast<std::uint8_t>(static_cast<std::uint8_t>(major) << majorShift);
  if (argument < oneByteFollows) {
    simple(static_cast<std::uint8_t>(high | argument));
    return;
  }
  int code = 0;  // the argument follows in 1 << code bytes: the fewest that hold it
  if (argument > std::numeric_limits<std::uint8_t>::max()) code = 1;
  if (argument > std::numeric_limits<std::uint16_t>::max()) code = 2;
  if (argument > std::numeric_limits<std::uint32_t>::max()) code = 3;
  simple(static_cast<std::uint8_t>(high | (oneByteFollows + code)));
  appendBigEndian(frame_.bytes, argument, 1 << code);
}

void Encoder::bytes(std::span<const std::byte> content) {
  head(Major::bytes, content.size());
  frame_.bytes.insert(frame_.bytes.end(), content.begin(), content.end());
}

void Encoder::text(std::string_view utf8) {
  head(Major::text, utf8.size());
  const auto content = std::as_bytes(std::span(utf8));
  frame_.bytes.insert(frame_.bytes.end(), content.begin(), content.end());
}

void Encoder::real(double number) {
  simple(Wire::realByte);
  appendBigEndian(frame_.bytes, std::bit_cast<std::uint64_t>(number), 8);
}

void Encoder::endpoint(const EndpointRef& endpoint) {
  if (!endpoint) return nil();
  head(Major::tag, Wire::endpointTag);
  head(Major::unsignedInteger, frame_.endpoints.size());
  frame_.endpoints.push_back(endpoint);
}

void Encoder::enter(Major major, std::size_t count, std::size_t items) {
  if (++depth_ > Wire::deepestNesting) stopProcess(ExitStatus::software);
  frame_.items += items;
  head(major, count);
}

OutgoingFrame Encoder::finish() {
  const std::size_t payload = frame_.bytes.size() - Wire::headerSize;
  storeLittleEndian(frame_.bytes.data(), static_cast<std::uint32_t>(payload));
  storeLittleEndian(frame_.bytes.data() + 4, static_cast<std::uint32_t>(frame_.endpoints.size()));
  return std::move(frame_);
}

void Decoder::malformed() {
  malformed_ = true;
  rest_ = {};
}

std::span<const std::byte> Decoder::take(std::uint64_t length) {
  if (length > rest_.size()) {
    malformed();
    return {};
  }
  const auto taken = rest_.first(length);
  rest_ = rest_.subspan(length);
  return taken;
}

std::optional<Wire::Major> Decoder::nextMajor() const {
  if (rest_.empty()) return std::nullopt;
  return static_cast<Major>(std::to_integer<std::uint8_t>(rest_[0]) >> majorShift);
}

bool Decoder::isNext(std::uint8_t firstByte) const {
  return !rest_.empty() && std::to_integer<std::uint8_t>(rest_[0]) == firstByte;
}

std::optional<Decoder::Head> Decoder::head() {
  const auto first = take(1);
  if (first.empty()) {
    malformed();
    return std::nullopt;
  }
  Head head{};
  head.firstByte = std::to_integer<std::uint8_t>(first[0]);
  head.major = static_cast<Major>(head.firstByte >> majorShift);
  const std::uint8_t low = head.firstByte & argumentMask;
  if (low < oneByteFollows) {
    head.argument = low;
  } else if (low < oneByteFollows + 4) {
    const int width = 1 << (low - oneByteFollows);
    for (const std::byte byte : take(static_cast<std::uint64_t>(width))) {
      head.argument = head.argument << 8 | std::to_integer<std::uint64_t>(byte);
    }
    // Only the shortest form is well-formed; a real's argument is no number to be shortened.
    const std::uint64_t least = width == 1 ? oneByteFollows : std::uint64_t{1} << (4 * width);
    if (head.major != Major::simple && head.argument < least) malformed();
  } else {
    malformed();  // indefinite lengths and reserved codes
  }
  if (head.major == Major::simple && head.firstByte != Wire::falseByte &&
      head.firstByte != Wire::trueByte && head.firstByte != Wire::nullByte &&
      head.firstByte != Wire::realByte) {
    malformed();
  }
  if (malformed_) return std::nullopt;
  return head;
}

// What a typed read does with an item of another type.
void Decoder::passOver(std::span<const std::byte> itemAndRest) {
  rest_ = itemAndRest;
  skip();
  wrongClass();
}

std::uint64_t Decoder::unsignedInteger() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return 0;
  if (read->major == Major::unsignedInteger) return read->argument;
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
  const auto start = rest_;
  const auto read = head();
  if (!read) return {};
  if (read->major == Major::bytes) return take(read->argument);
  passOver(start);
  return {};
}

std::string_view Decoder::text() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return {};
  if (read->major == Major::text) return characters(take(read->argument));
  passOver(start);
  return {};
}

std::size_t Decoder::array() {
  const auto start = rest_;
  const auto read = head();
  if (!read) return 0;
  if (read->major != Major::array) {
    passOver(start);
    return 0;
  }
  // Every item takes a byte at least, so a larger count is a lie.
  if (read->argument > rest_.size()) malformed();
  return malformed_ ? 0 : read->argument;
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
  const auto read = head();
  if (!read) return nullptr;
  if (read->major == Major::tag && read->argument == Wire::endpointTag) {
    const auto index = head();
    if (index && index->major == Major::unsignedInteger) return endpointAt(index->argument);
    malformed();
    return nullptr;
  }
  passOver(start);
  return nullptr;
}

bool Decoder::takeNil() {
  if (!isNext(Wire::nullByte)) return false;
  rest_ = rest_.subspan(1);
  return true;
}

// The number of items or entries that follow, all of whose claims have been checked.
std::uint64_t Decoder::enter(Major major, std::uint64_t itemsEach, std::uint64_t size) {
  const auto start = rest_;
  const auto read = head();
  if (++depth_ > Wire::deepestNesting) malformed();
  if (!read) return 0;
  if (read->major != major) {
    passOver(start);
    return 0;
  }
  // Every item takes a byte at least, so a larger count is a lie.
  const std::uint64_t most = std::min(Wire::mostItems - items_, rest_.size()) / itemsEach;
  if (read->argument > most) malformed();
  if (malformed_) return 0;
  items_ += read->argument * itemsEach;
  room_ += read->argument * size;
  if (room_ > mostRoom) wrongClass();
  return read->argument;
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

void encode(Encoder& encoder, bool boolean) {
  encoder.simple(boolean ? Wire::trueByte : Wire::falseByte);
}

void encode(Encoder& encoder, double real) {
  encoder.real(real);
}

void encode(Encoder& encoder, const Text& text) {
  encoder.text(text.utf8());
}

void encode(Encoder& encoder, const Data& data) {
  encoder.bytes(data);
}

void encode(Encoder& encoder, const NSDate& date) {
  encoder.head(Major::tag, Wire::dateTag);
  encoder.real(date.timeIntervalSince1970);
}

void encode(Encoder& encoder, const EndpointRef& endpoint) {
  encoder.endpoint(endpoint);
}

void encode(Encoder& encoder, const Value& value) {
  if (value.isNil()) {
    encoder.nil();
  } else if (const auto boolean = value.asBoolean()) {
    encode(encoder, *boolean);
  } else if (const auto positive = value.asUnsigned()) {
    encode(encoder, *positive);
  } else if (const auto negative = value.asSigned()) {
    encode(encoder, *negative);
  } else if (const auto real = value.asReal()) {
    encode(encoder, *real);
  } else if (const Text* text = value.asText()) {
    encode(encoder, *text);
  } else if (const Data* data = value.asData()) {
    encode(encoder, *data);
  } else if (const NSDate* date = value.asDate()) {
    encode(encoder, *date);
  } else if (const Array* array = value.asArray()) {
    encode(encoder, *array);
  } else if (const Dictionary* dictionary = value.asDictionary()) {
    encode(encoder, *dictionary);
  } else {
    const auto endpoint = value.asObject<NSXPCListenerEndpoint>();
    if (!endpoint) stopProcess(ExitStatus::software);
    encode(encoder, endpoint);
  }
}

void decode(Decoder& decoder, bool& boolean) {
  boolean = decoder.boolean();
}

void decode(Decoder& decoder, double& real) {
  real = decoder.real();
}

void decode(Decoder& decoder, Text& text) {
  auto read = Text::fromUtf8(std::string(decoder.text()));
  if (!read) {
    decoder.malformed();
    return;
  }
  text = *std::move(read);
}

void decode(Decoder& decoder, Data& data) {
  const auto content = decoder.bytes();
  data.assign(content.begin(), content.end());
}

void decode(Decoder& decoder, NSDate& date) {
  date = decoder.date();
}

void decode(Decoder& decoder, EndpointRef& endpoint) {
  endpoint = decoder.endpoint();
}

void decode(Decoder& decoder, Value& value) {
  value = decoder.value();
}

}  // namespace Platform
