#include "support/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "support/descriptors.h"

namespace vesk {

namespace {

std::string readToEnd(int fd) {
    std::string text;
    std::array<char, 4096> chunk;
    ssize_t count = 0;
    while ((count = read(fd, chunk.data(), chunk.size())) > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace

ChildResult runInChild(const std::function<int()>& body) {
    Pipe output;
    // The child inherits the content of the buffer and would write it a second time.
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output.write.get(), STDOUT_FILENO);
        output.read.reset();
        output.write.reset();
        const int exitCode = body();
        std::fflush(stdout);
        _exit(exitCode);
    }
    output.write.reset();
    ChildResult result;
    result.printed = readToEnd(output.read.get());
    EXPECT_EQ(waitpid(child, &result.waitStatus, 0), child);
    if (WIFEXITED(result.waitStatus)) {
        result.exitCode = WEXITSTATUS(result.waitStatus);
    }
    return result;
}

ChildResult checkInChild(const std::function<void()>& body) {
    ChildResult result = runInChild([&body] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exitCode, 0) << result.printed;
    return result;
}

}  // namespace vesk
