#include "child/line_splitter.h"

#include <utility>

namespace vesk::controller {

std::vector<std::string> LineSplitter::feed(std::string_view bytes) {
    std::vector<std::string> lines;
    for (std::size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos;) {
        rest_.append(bytes.substr(0, end));
        lines.push_back(std::exchange(rest_, {}));
        bytes.remove_prefix(end + 1);
    }
    rest_.append(bytes);
    return lines;
}

std::string LineSplitter::takeRest() {
    return std::exchange(rest_, {});
}

}  // namespace vesk::controller
