// What a fuzz target holds against the code that it feeds, beyond "it does not crash".
#pragma once

// Ends the process, which the fuzzer reports with the input that led there.
inline void require(bool holds) {
  if (!holds) __builtin_trap();
}
