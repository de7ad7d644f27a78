// The forwarder's process: two pipes and a process id. Called by child/forwarder_session, on the
// main thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "child/forwarder_descriptors.h"

namespace vesk::controller {

/// Owns the child process and its pipes, which no other process inherits. Move-only. The destructor
/// kills a child that is still running. Signals go to the child's process group, so a program that
/// is started by a script also gets them and does not outlive the script.
class ChildProcess {
 public:
    /// Runs a program with no signal blocked or ignored, no descriptors but the standard ones, and
    /// in its own process group, so that signals from a terminal do not reach it. Both pipes are
    /// non-blocking on this side. `variables`, each NAME=value, are added to the environment and
    /// replace variables of the same name. Throws std::system_error.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& variables = {});

    /// Takes over a running process that an earlier controller has started. It is no child of this
    /// one: its status stays unknown, and it ends by itself once its input is closed, so the
    /// destructor does not kill it.
    explicit ChildProcess(ForwarderDescriptors running);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;

    int input() const { return input_.get(); }
    int output() const { return output_.get(); }
    pid_t pid() const { return pid_; }
    /// To be polled for the end of a process that was taken over; -1 for a child.
    int end() const { return process_.get(); }

    void closeInput() { input_.reset(); }
    void signal(int number) const;

    /// The status of waitpid(2) if the child has ended, once. Kills the rest of its process group.
    /// `unknownStatus` for a process that was taken over.
    std::optional<int> reap();

 private:
    UniqueFd input_;
    UniqueFd output_;
    UniqueFd process_;  // a pidfd, of a process that was taken over
    pid_t pid_ = -1;
};

/// No status of waitpid(2).
inline constexpr int unknownStatus = -1;

/// "ended", "ended with status 1" or "was ended by signal 9 (Killed)".
std::string describeEnd(int waitStatus);

bool endedWell(int waitStatus);

}  // namespace vesk::controller
