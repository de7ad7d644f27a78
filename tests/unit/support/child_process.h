// Runs code in a child process, for tests that end the process or change it permanently.
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

/// Runs `body` in a child process and captures its standard output. The child ends with the result
/// of `body` as its exit code and does not run the exit handlers of the test process.
ChildResult runInChild(const std::function<int()>& body);

/// Runs `body` in a child process too. The test fails if an expectation fails there.
ChildResult checkInChild(const std::function<void()>& body);

}  // namespace vesk
