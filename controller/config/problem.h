// The problems of a configuration file. The readers in config/ add to one list, so that all
// problems are reported at once; main and service/supervisor print it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::controller {

struct Problem {
    std::uint32_t line = 0;  ///< from 1; 0 if no line is the cause
    std::string text;        ///< names the place, never a key
};

using Problems = std::vector<Problem>;

/// "FILE:LINE: text", or "FILE: text", with keys masked.
std::string describe(const Problem& problem, const std::string& file);

}  // namespace vesk::controller
