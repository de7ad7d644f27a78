#include "base/nonblocking.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "support/printed.h"

namespace vesk {
namespace {

TEST(NonBlockingTest, MakesASocketNonBlockingAndCanBeRepeated) {
    const UniqueFd ipv4(socket(AF_INET, SOCK_DGRAM, 0));
    const int before = fcntl(ipv4.get(), F_GETFL);
    EXPECT_EQ(before & O_NONBLOCK, 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(setNonBlocking(ipv4.get()), 0);
        EXPECT_EQ(fcntl(ipv4.get(), F_GETFL), before | O_NONBLOCK);
    }
}

TEST(NonBlockingTest, FailsSilentlyForAnInvalidDescriptor) {
    EXPECT_EQ(printedBy([] { EXPECT_EQ(setNonBlocking(-1), -EBADF); }), "");
}

}  // namespace
}  // namespace vesk
