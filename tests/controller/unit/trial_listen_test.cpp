#include "service/trial_listen.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace vesk::controller {
namespace {

/// A socket on a port that the kernel chooses.
class Taken {
 public:
    Taken() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }
    std::uint16_t port() const { return port_; }

 private:
    UniqueFd socket_;
    std::uint16_t port_ = 0;
};

TEST(TrialListen, DetectsAPortInUseAndReleasesAFreeOne) {
    std::uint16_t port = 0;
    {
        const Taken taken;
        port = taken.port();
        EXPECT_EQ(tryToListen({"127.0.0.1", port}), -EADDRINUSE);
        EXPECT_EQ(tryToListen({"0.0.0.0", port}), -EADDRINUSE);
        EXPECT_EQ(tryToListen({"::", port}), -EADDRINUSE);
        EXPECT_EQ(tryToListen({"127.0.0.2", port}), 0);
    }
    EXPECT_EQ(tryToListen({"127.0.0.1", port}), 0);
    EXPECT_EQ(tryToListen({"127.0.0.1", port}), 0);
    EXPECT_EQ(tryToListen({"::1", port}), 0);
}

TEST(TrialListen, DetectsAnAddressOfAnotherHost) {
    EXPECT_EQ(tryToListen({"192.0.2.1", 4500}), -EADDRNOTAVAIL);
}

TEST(TrialListen, DetectsAddressesThatCollide) {
    const auto collide = [](const char* one, const char* other) {
        const bool result = mayCollide({one, 1}, {other, 1});
        EXPECT_EQ(result, mayCollide({other, 1}, {one, 1}));
        EXPECT_FALSE(mayCollide({one, 1}, {other, 2}));
        return result;
    };
    EXPECT_TRUE(collide("127.0.0.1", "127.0.0.1"));
    EXPECT_TRUE(collide("127.0.0.1", "0.0.0.0"));
    EXPECT_TRUE(collide("127.0.0.1", "::"));
    EXPECT_TRUE(collide("::1", "::"));
    EXPECT_TRUE(collide("::", "0.0.0.0"));
    EXPECT_TRUE(collide("127.0.0.1", "::ffff:127.0.0.1"));
    EXPECT_TRUE(collide("::1", "0:0::0:1"));
    EXPECT_FALSE(collide("127.0.0.1", "127.0.0.2"));
    EXPECT_FALSE(collide("127.0.0.1", "::1"));
}

}  // namespace
}  // namespace vesk::controller
