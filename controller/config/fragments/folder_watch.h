// Waits for changes in a folder of fragments: by inotify(7), through a descriptor for poll(2), and
// by the time. Called by service/supervisor, in its one thread.
#pragma once

#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "config/fragments/change_timer.h"

namespace vesk::controller {

class FolderWatch {
 public:
    using Clock = ChangeTimer::Clock;

    explicit FolderWatch(std::filesystem::path folder);

    /// Why there are no events; empty if there are. Without them changes are found by the time.
    const std::string& problem() const { return problem_; }

    /// Readable after events; -1 if there are none.
    int descriptor() const { return events_.get(); }
    void readEvents();

    /// When the folder has to be looked at.
    Clock::time_point dueAt() const { return timer_.dueAt(); }
    /// To be called before it is looked at. Another folder may have its path now. True if the look
    /// has to be thorough: after events, or a minute after the last one that was.
    bool look();

 private:
    void follow();

    std::filesystem::path folder_;
    UniqueFd events_;
    int watch_ = -1;
    std::string problem_;
    ChangeTimer timer_{Clock::now()};
};

}  // namespace vesk::controller
