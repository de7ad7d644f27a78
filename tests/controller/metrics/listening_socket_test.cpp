#include "metrics/listening_socket.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "http_request.h"

namespace vesk::controller {
namespace {

TEST(ListeningSocketTest, ReportsWhyItCannotListen) {
    const auto reason = [](const char* address, std::uint16_t port) -> std::string {
        try {
            listenOn(address, port);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    };
    const UniqueFd first = listenOn("127.0.0.1", 0);
    EXPECT_EQ(reason("127.0.0.1", portOf(first)), "Address already in use");
    EXPECT_EQ(reason("0.0.0.0", portOf(first)), "Address already in use");
    EXPECT_EQ(reason("192.0.2.1", 0), "Cannot assign requested address");
    EXPECT_EQ(reason("localhost", 0), "not a numeric address");
}

TEST(ListeningSocketTest, AcceptsClientsOfBothFamiliesOnTheWildcardAddress) {
    if (!hasIpv6()) {
        GTEST_SKIP() << "this host has no IPv6 address ::1";
    }
    const UniqueFd both = listenOn("::", 0);
    EXPECT_TRUE(connectTo("::1", portOf(both)));
    EXPECT_TRUE(connectTo("127.0.0.1", portOf(both)));
    const UniqueFd one = listenOn("::1", 0);
    EXPECT_TRUE(connectTo("::1", portOf(one)));
    EXPECT_FALSE(connectTo("127.0.0.1", portOf(one)));
}

}  // namespace
}  // namespace vesk::controller
