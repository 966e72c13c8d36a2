// What encoding and decoding cost: the agent's usual request, and a value such as applications send
// to each other. The bytes per second are those on the wire.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <utility>

#include "Platform/XPC/Codec.h"

using namespace Platform;

namespace {

OutgoingFrame request(const Text& identifier) {
  Encoder encoder(4, Wire::Kind::call);
  encoder.unsignedInteger(1000);
  encoder.text("retrieveListenerEndpoint:completionHandler:");
  encoder.head(Wire::Major::array, 1);
  encode(encoder, identifier);
  return encoder.finish();
}

OutgoingFrame valueFrame(const Value& value) {
  Encoder encoder;
  encode(encoder, value);
  return encoder.finish();
}

Frame received(OutgoingFrame frame) {
  Frame arrived;
  arrived.keep({frame.bytes.begin() + Wire::headerSize, frame.bytes.end()});
  return arrived;
}

Value meetings(std::int64_t count) {
  Array all;
  for (std::int64_t i = 0; i < count; ++i) {
    all.push_back(Dictionary{{"id"_text, *Text::fromUtf8("meeting " + std::to_string(i))},
                             {"title"_text, "Coffee with the design team"_text},
                             {"start"_text, NSDate{1.6e9 + static_cast<double>(i)}}});
  }
  return all;
}

void count(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void encodeRequest(benchmark::State& state) {
  const Text identifier = *Text::fromUtf8(std::string(40, 'x'));
  for (auto _ : state) benchmark::DoNotOptimize(request(identifier));
  count(state, request(identifier).bytes.size());
}

void decodeRequest(benchmark::State& state) {
  Frame frame = received(request(*Text::fromUtf8(std::string(40, 'x'))));
  for (auto _ : state) {
    Decoder decoder(frame);
    decoder.array();
    decoder.unsignedInteger();
    decoder.unsignedInteger();
    benchmark::DoNotOptimize(decoder.text());
    decoder.array();
    Text identifier;
    decode(decoder, identifier);
    benchmark::DoNotOptimize(identifier);
  }
  count(state, frame.payload.size());
}

void encodeValue(benchmark::State& state) {
  const Value value = meetings(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(valueFrame(value));
  count(state, valueFrame(value).bytes.size());
}

void decodeValue(benchmark::State& state) {
  Frame frame = received(valueFrame(meetings(state.range(0))));
  for (auto _ : state) {
    Decoder decoder(frame);
    benchmark::DoNotOptimize(decoder.value());
  }
  count(state, frame.payload.size());
}

// What an item that nobody here asked for costs: it is checked, and not built.
void skipValue(benchmark::State& state) {
  Frame frame = received(valueFrame(meetings(state.range(0))));
  for (auto _ : state) {
    Decoder decoder(frame);
    decoder.skip();
    benchmark::DoNotOptimize(decoder.isSound());
  }
  count(state, frame.payload.size());
}

BENCHMARK(encodeRequest);
BENCHMARK(decodeRequest);
BENCHMARK(encodeValue)->Arg(3)->Arg(10'000);
BENCHMARK(decodeValue)->Arg(3)->Arg(10'000);
BENCHMARK(skipValue)->Arg(3)->Arg(10'000);

}  // namespace
