// What must hold for every input. A fuzz target says it with this; the fuzzer, or the replay, stops
// at the input that breaks it.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace vesk::fuzz {

inline void require(bool holds, const char* claim) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", claim);
        std::abort();
    }
}

}  // namespace vesk::fuzz
