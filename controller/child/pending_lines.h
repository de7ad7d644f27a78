// Lines that wait to be written to a descriptor. Used by child/forwarder_session for the child's
// input, and by service/log_output for the controller's log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vesk::controller {

class PendingLines {
 public:
    /// `line` without its newline.
    void add(std::string_view line);

    bool empty() const { return sent_ == bytes_.size(); }
    std::size_t size() const { return bytes_.size() - sent_; }

    /// The number of lines still to be written, including one that was written in part.
    std::size_t count() const;

    /// The first bytes that are still to be written, at most `limit`.
    std::string_view front(std::size_t limit) const {
        return std::string_view(bytes_).substr(sent_, limit);
    }

    /// Records that `count` bytes of front() were written.
    void drop(std::size_t count);

    /// Discards everything except the rest of a line that was written in part: half a command may
    /// have another meaning.
    void keepLineBegun();

    void clear();

 private:
    std::string bytes_;
    std::size_t sent_ = 0;
};

}  // namespace vesk::controller
