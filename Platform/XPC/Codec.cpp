#include "Platform/XPC/Codec.h"

#include <string>
#include <utility>

#include "Platform/Runtime/Stop.h"

namespace Platform {

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
  encoder.head(Wire::Major::tag, Wire::dateTag);
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
  if (!text.assignUtf8(decoder.text())) decoder.malformed();
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
