#include "service/listener_remedy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/command_lines.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const Command listening = startCommand({"192.0.2.1", 4500});

TEST(ListenerRemedy, NamesAddressPortAndRemedy) {
    const std::string said =
        cannotListen(listening, "Failed bind syscall for endpoint socket: Address already in use");
    EXPECT_THAT(said, StartsWith("cannot listen on 192.0.2.1, port 4500: the port is in use"));
    EXPECT_THAT(said, HasSubstr("\"ss -lunp\""));
}

TEST(ListenerRemedy, HasARemedyForEachKnownError) {
    EXPECT_THAT(cannotListen(listening, "Cannot assign requested address"),
                HasSubstr("ip address"));
    EXPECT_THAT(cannotListen(listening, "Permission denied"), HasSubstr("CAP_NET_BIND_SERVICE"));
    EXPECT_THAT(cannotListen(listening, "Address family not supported by protocol"),
                HasSubstr("IPv6"));
    EXPECT_THAT(cannotListen(listening, "Too many open files"), HasSubstr("LimitNOFILE"));
}

TEST(ListenerRemedy, RepeatsAnUnknownError) {
    EXPECT_EQ(cannotListen(listening, "no such thing"),
              "cannot listen on 192.0.2.1, port 4500: no such thing");
}

}  // namespace
}  // namespace vesk::controller
