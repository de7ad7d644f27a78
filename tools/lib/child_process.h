// A forwarding program run as a child: commands go to its standard input, its log is read and kept
// in part.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace vesk::bench {

class ChildProcess {
 public:
    using LogListener = std::function<void(std::string_view line)>;

    /// The listener is called for every line of the log, on a thread of its own. Throws
    /// std::system_error when the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& command, LogListener listener = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();  // kills a child that finish() was not called for

    pid_t pid() const { return pid_; }
    void sendLine(std::string_view line);

    /// Ends the child's standard input and waits for its end, for five seconds at most. Returns the
    /// exit status, or 128 plus the number of the signal that ended the child.
    int finish();

    struct Log {
        std::uint64_t lines = 0;
        std::deque<std::string> complaints;  // the first lines that do not begin with "info "
    };
    Log log() const;

 private:
    void drainLog();
    void keep(std::string line);

    LogListener listener_;
    pid_t pid_ = -1;
    UniqueFd input_;
    UniqueFd output_;
    mutable std::mutex logMutex_;
    Log log_;
    std::thread logReader_;
};

}  // namespace vesk::bench
