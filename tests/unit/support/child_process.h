// Running code in a process of its own: for what ends the process or changes it for good.
#pragma once

#include <functional>
#include <string>

namespace vesk {

struct ChildResult {
    /// As waitpid reports it; for the macros of wait(2).
    int waitStatus = 0;
    /// The exit code of a child that ended by itself, else -1.
    int exitCode = -1;
    std::string printed;
};

/// Runs `body` in a child, with standard output caught; the child ends with its result as exit
/// code, without running what the test process registered for its own end.
ChildResult runInChild(const std::function<int()>& body);

}  // namespace vesk
