// Lines on their way to a descriptor that does not always take them. Used for the child's input and
// for the controller's own log.
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

    /// How many lines are still to be written, one that was begun included.
    std::size_t count() const;

    /// The first bytes that are still to be written, at most `limit`.
    std::string_view front(std::size_t limit) const {
        return std::string_view(bytes_).substr(sent_, limit);
    }

    /// Notes that so many bytes of front() were written.
    void drop(std::size_t count);

    /// Forgets all but the rest of a line that was written in part: half a command may mean
    /// something else.
    void keepLineBegun();

    void clear();

 private:
    std::string bytes_;
    std::size_t sent_ = 0;
};

}  // namespace vesk::controller
