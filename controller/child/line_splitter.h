// Splits a stream of bytes into lines. Called by child/forwarder_session with the child's output.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::controller {

class LineSplitter {
 public:
    /// Longer than any line of the forwarder. The rest of a longer line is discarded, so that a
    /// child that never ends its line cannot use all memory.
    static constexpr std::size_t longestLine = std::size_t{1} << 20U;

    /// The lines that are complete now, without their newlines.
    std::vector<std::string> feed(std::string_view bytes);

    /// The text after the last newline; to be called at the end of the input.
    std::string takeRest();

 private:
    void append(std::string_view piece);

    std::string rest_;
};

}  // namespace vesk::controller
