// Starting a server the way a service manager does: with its listening socket handed over.
#pragma once

#include <string>

#include "Benchmarks/Broker/Descriptor.h"

namespace Benchmark {

// Becomes `command` (an argument vector that ends with null), which finds `listener` as its first
// handed descriptor under `name`; see sd_listen_fds(3).
[[noreturn]] void becomeServer(Descriptor listener, const std::string& name, char* const* command);

}  // namespace Benchmark
