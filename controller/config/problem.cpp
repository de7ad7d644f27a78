#include "config/problem.h"

namespace vesk::controller {

std::string describe(const Problem& problem, const std::string& file) {
    const std::string line = problem.line == 0 ? "" : ":" + std::to_string(problem.line);
    return file + line + ": " + problem.text;
}

}  // namespace vesk::controller
