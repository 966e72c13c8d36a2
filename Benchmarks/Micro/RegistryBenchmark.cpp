// What the agent's map costs by itself, with identifiers of 40 bytes: finding one, missing one, and
// replacing one. Making the text, which checks and hashes it, is measured by bench_text.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "GantrelAgent/Agent.h"

using namespace Platform;
using Gantrel_Sync_Helper::Agent;

namespace {

Text identifier(std::int64_t number) {
  return *Text::fromUtf8("com.gantrel.Gantrel.identifier-" + std::to_string(100'000'000 + number));
}

struct Registry {
  explicit Registry(std::int64_t count)
      : endpoint(std::make_shared<NSXPCListenerEndpoint>(UniqueFd())) {
    for (std::int64_t i = 0; i < count; ++i) {
      identifiers.push_back(identifier(i * 7919 % count));
      missing.push_back(identifier(count + i));
      map.insert_or_assign(identifiers.back(), endpoint);
    }
  }

  const EndpointRef endpoint;
  Agent::EndpointMap map;
  std::vector<Text> identifiers;  // in another order than they lie in the map
  std::vector<Text> missing;
};

void find(benchmark::State& state, bool isThere) {
  const Registry registry(state.range(0));
  const auto& asked = isThere ? registry.identifiers : registry.missing;
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(registry.map.find(asked[next]));
    if (++next == asked.size()) next = 0;
  }
}

void replace(benchmark::State& state) {
  Registry registry(state.range(0));
  std::size_t next = 0;
  for (auto _ : state) {
    registry.map.insert_or_assign(registry.identifiers[next], registry.endpoint);
    if (++next == registry.identifiers.size()) next = 0;
  }
}

BENCHMARK_CAPTURE(find, present, true)->Arg(10)->Arg(1'000)->Arg(100'000);
BENCHMARK_CAPTURE(find, missing, false)->Arg(10)->Arg(1'000)->Arg(100'000);
BENCHMARK(replace)->Arg(10)->Arg(1'000)->Arg(100'000);

}  // namespace
