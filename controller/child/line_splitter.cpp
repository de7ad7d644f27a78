#include "child/line_splitter.h"

#include <utility>

namespace vesk::controller {

std::vector<std::string> LineSplitter::feed(std::string_view bytes) {
    std::vector<std::string> lines;
    for (std::size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos;) {
        append(bytes.substr(0, end));
        lines.push_back(std::exchange(rest_, {}));
        bytes.remove_prefix(end + 1);
    }
    append(bytes);
    return lines;
}

void LineSplitter::append(std::string_view piece) {
    rest_.append(piece.substr(0, longestLine - rest_.size()));
}

std::string LineSplitter::takeRest() {
    return std::exchange(rest_, {});
}

}  // namespace vesk::controller
