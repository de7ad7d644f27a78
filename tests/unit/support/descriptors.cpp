#include "support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <ios>
#include <iterator>
#include <string>
#include <string_view>

#include "log/log.h"

namespace vesk {

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int socketOption(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0);
    return value;
}

std::size_t countOpenDescriptors() {
    // Every count includes the descriptor of the directory, so differences do not.
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                      std::filesystem::directory_iterator()));
}

Pipe::Pipe() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(pipe(ends.data()), 0);
    read.reset(ends[0]);
    write.reset(ends[1]);
}

SocketCouple::SocketCouple(int type) {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends.data()), 0);
    first.reset(ends[0]);
    second.reset(ends[1]);
}

void DescriptorCountingTest::SetUp() {
    openBefore_ = countOpenDescriptors();
}

void DescriptorCountingTest::TearDown() {
    EXPECT_EQ(countOpenDescriptors(), openBefore_);
}

namespace {

/// A sanitizer that checks a type for the first time opens a pipe to read the object. It must
/// therefore have seen the types used for log lines before descriptors are short.
void logOnceUnseen() {
    std::fflush(stdout);
    const UniqueFd before(dup(STDOUT_FILENO));
    const UniqueFd nowhere(open("/dev/null", O_WRONLY));
    dup2(nowhere.get(), STDOUT_FILENO);
    logError("text", std::string("text"), std::string_view("text"), 'x', 1, 1U, std::hex, 1UL);
    dup2(before.get(), STDOUT_FILENO);
}

}  // namespace

DescriptorShortage::DescriptorShortage(int spare) {
    logOnceUnseen();
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const UniqueFd lowestFree(open("/dev/null", O_RDONLY));
    rlimit tight = before_;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree.get()) + static_cast<rlim_t>(spare);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
}

DescriptorShortage::~DescriptorShortage() {
    setrlimit(RLIMIT_NOFILE, &before_);
}

}  // namespace vesk
