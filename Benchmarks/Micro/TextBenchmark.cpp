// What becoming a Text costs: checking UTF-8, the canonical form, and the hash; and what comparing
// costs.
#include <benchmark/benchmark.h>

#include <string>

#include "Platform/Runtime/Text.h"

using Platform::Text;

namespace {

std::string repeated(std::string_view unit, std::size_t bytes) {
  std::string text;
  while (text.size() + unit.size() <= bytes) text += unit;
  return text;
}

void become(benchmark::State& state, std::string_view unit) {
  const std::string bytes = repeated(unit, static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(Text::fromUtf8(bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void compareEqual(benchmark::State& state, std::string_view unit) {
  const std::string bytes = repeated(unit, static_cast<std::size_t>(state.range(0)));
  const Text a = *Text::fromUtf8(bytes);
  const Text b = *Text::fromUtf8(bytes);
  for (auto _ : state) benchmark::DoNotOptimize(a == b);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

BENCHMARK_CAPTURE(become, ascii, "com.gantrel.")->Arg(40)->Arg(1 << 20);
BENCHMARK_CAPTURE(become, composed, "caf\u00e9 ")->Arg(40)->Arg(1 << 20);
BENCHMARK_CAPTURE(become, decomposed, "cafe\u0301 ")->Arg(40)->Arg(1 << 20);
BENCHMARK_CAPTURE(become, misorderedMarks, "\u0301\u0323")->Arg(40)->Arg(1 << 20);
BENCHMARK_CAPTURE(compareEqual, ascii, "com.gantrel.")->Arg(40)->Arg(1 << 20);
BENCHMARK_CAPTURE(compareEqual, composed, "caf\u00e9 ")->Arg(40);

}  // namespace
