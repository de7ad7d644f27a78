// Runs a forwarding program as a child process: writes commands to its standard input, reads its
// log and keeps part of it.
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

    /// The listener is called for every line of the log, on a separate thread. Throws
    /// std::system_error if the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& command, LogListener listener = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();  // kills the child if finish() was not called

    pid_t pid() const { return pid_; }
    void sendLine(std::string_view line);

    /// Closes the child's standard input and waits until the child ends; kills it after five
    /// seconds. Returns the exit status, or 128 plus the number of the signal that ended the child.
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
