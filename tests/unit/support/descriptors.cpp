#include "support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <ios>
#include <iterator>
#include <sstream>
#include <string>

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
    // The directory's own descriptor is in every count, and so in none of the differences.
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

DescriptorShortage::DescriptorShortage(int spare) {
    // A sanitizer that meets a type for the first time opens a pipe to look at the object; what
    // messages are composed with has to be known to it before.
    std::ostringstream message;
    message << std::hex << 1U << std::dec << 1 << "text" << std::string("text") << 'x';
    EXPECT_FALSE(message.view().empty());
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const UniqueFd lowestFree(open("/dev/null", O_RDONLY));
    rlimit tight = before_;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree.get() + spare);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
}

DescriptorShortage::~DescriptorShortage() {
    setrlimit(RLIMIT_NOFILE, &before_);
}

}  // namespace vesk
