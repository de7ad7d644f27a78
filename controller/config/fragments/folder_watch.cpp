#include "config/fragments/folder_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "log/error_text.h"

namespace vesk::controller {

namespace {

constexpr std::uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                        IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF |
                                        IN_MOVE_SELF;

}  // namespace

FolderWatch::FolderWatch(std::filesystem::path folder)
    : folder_(std::move(folder)), events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!events_) {
        problem_ = errorText(errno);
        return;
    }
    follow();
    // Files may have changed after they were read and before this.
    timer_.event(Clock::now());
}

/// The kernel returns the same number as before for the same folder.
void FolderWatch::follow() {
    if (!events_) {
        return;
    }
    const int watch = inotify_add_watch(events_.get(), folder_.c_str(), watchedEvents);
    problem_ = watch < 0 ? errorText(errno) : "";
    if (watch_ >= 0 && watch != watch_) {
        static_cast<void>(inotify_rm_watch(events_.get(), watch_));
    }
    watch_ = watch;
}

void FolderWatch::readEvents() {
    alignas(inotify_event) std::array<char, 16384> events{};
    bool any = false;
    while (read(events_.get(), events.data(), events.size()) > 0) {
        any = true;
    }
    if (any) {
        timer_.event(Clock::now());
    }
}

bool FolderWatch::look() {
    follow();
    return timer_.look(Clock::now());
}

}  // namespace vesk::controller
