// Bytes in, whole lines out. Called by child/forwarder_session with what the child's pipe gives.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::controller {

class LineSplitter {
 public:
    /// Longer than any line of the forwarder. What goes beyond it is left out: a child that never
    /// ends its line does not get all the memory.
    static constexpr std::size_t longestLine = std::size_t{1} << 20U;

    /// The lines that are complete now, without their newlines.
    std::vector<std::string> feed(std::string_view bytes);

    /// What stands behind the last newline; to be asked for at the end of the input.
    std::string takeRest();

 private:
    void append(std::string_view piece);

    std::string rest_;
};

}  // namespace vesk::controller
