#include "child/pending_lines.h"

#include <algorithm>

namespace vesk::controller {

namespace {

/// Written bytes are erased in large pieces, so that the cost of a long backlog is proportional to
/// its length.
constexpr std::size_t compactionSize = std::size_t{1} << 16U;

}  // namespace

void PendingLines::add(std::string_view line) {
    bytes_.append(line).append(1, '\n');
}

std::size_t PendingLines::count() const {
    return static_cast<std::size_t>(std::ranges::count(front(size()), '\n'));
}

void PendingLines::drop(std::size_t count) {
    sent_ += count;
    if (empty()) {
        clear();
    } else if (sent_ >= compactionSize && sent_ >= bytes_.size() / 2) {
        // The last byte written is kept: it shows whether a line was written in part.
        bytes_.erase(0, sent_ - 1);
        sent_ = 1;
    }
}

void PendingLines::keepLineBegun() {
    const bool begun = sent_ > 0 && bytes_[sent_ - 1] != '\n';
    if (!begun) {
        clear();
        return;
    }
    bytes_.erase(bytes_.find('\n', sent_) + 1);
}

void PendingLines::clear() {
    bytes_.clear();
    sent_ = 0;
}

}  // namespace vesk::controller
