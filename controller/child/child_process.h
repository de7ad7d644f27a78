// The forwarder as a process: two pipes and an id. Called by child/forwarder_session.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace vesk::controller {

/// Owns the child: its pipes, which nobody else inherits, and its end. Move-only. A child that has
/// not ended when its owner does is killed. Where the program is a script that runs another, that
/// one is signalled along with it, and does not outlive it.
class ChildProcess {
 public:
    /// Runs a program with both pipes non-blocking on this side, no signal blocked or ignored, no
    /// other descriptor than the standard ones, and in a process group of its own, so that what a
    /// terminal sends to this process does not reach it. `variables`, each NAME=value, are added
    /// to the environment and replace what is there by the same name. Throws std::system_error.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& variables = {});
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;

    int input() const { return input_.get(); }
    int output() const { return output_.get(); }
    pid_t pid() const { return pid_; }

    void closeInput() { input_.reset(); }
    void signal(int number) const;

    /// The status of waitpid(2) if it has ended, once. Kills what it has left behind.
    std::optional<int> reap();

 private:
    UniqueFd input_;
    UniqueFd output_;
    pid_t pid_ = -1;
};

/// "ended with status 1" or "was ended by signal 9 (Killed)".
std::string describeEnd(int waitStatus);

bool endedWell(int waitStatus);

}  // namespace vesk::controller
