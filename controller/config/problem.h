// What is wrong with a configuration file. Filled by everything that reads a part of it, so that
// all mistakes are reported at once; printed by main and at a reload.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::controller {

struct Problem {
    std::uint32_t line = 0;  ///< from 1; 0 where no line is to blame
    std::string text;        ///< names the place, never a key
};

using Problems = std::vector<Problem>;

/// "FILE:LINE: text", or "FILE: text", with keys in the wrong place masked.
std::string describe(const Problem& problem, const std::string& file);

}  // namespace vesk::controller
