// A number with its noun, for log messages. Called by service/.
#pragma once

#include <cstddef>
#include <string>

namespace vesk::controller {

/// "1 flow", "2 flows".
inline std::string countOf(std::size_t count, const std::string& thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

}  // namespace vesk::controller
