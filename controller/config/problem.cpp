#include "config/problem.h"

#include "config/key_mask.h"

namespace vesk::controller {

std::string describe(const Problem& problem, const std::string& file) {
    const std::string line = problem.line == 0 ? "" : ":" + std::to_string(problem.line);
    // Masked separately, so that the line number is not counted as digits of a key.
    return maskKeyDigits(file) + line + ": " + maskKeyDigits(problem.text);
}

}  // namespace vesk::controller
