// Checks a condition that must hold for every input. The fuzzer or the replay stops at an input for
// which it does not hold.
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
