#include "service/steering_warnings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "warning_matchers.h"

namespace vesk::controller {
namespace {

using testing::AllOf;
using testing::HasSubstr;

TEST(SteeringWarnings, NameTheReasonAndTheRemedy) {
    EXPECT_THAT(cannotSteer(4500, {"", "Operation not permitted", false}),
                AllOf(HasSubstr("cannot steer port 4500 to the instances: "),
                      HasSubstr("\"Operation not permitted\"; grant CAP_NET_ADMIN")));
    EXPECT_THAT(cannotSteer(4500, {"", "No such file or directory", true}),
                HasSubstr("use a kernel with nf_tables"));
}

TEST(SteeringWarnings, WarnOfPortsThatTheKernelMayGiveAway) {
    const InstancePorts ports{32766, 32770, 0};
    const auto warnings = [&](const PortRange& range, const std::string& reserved) {
        return instancePortWarnings(ports, range, reserved);
    };
    EXPECT_THAT(warnings({32768, 60999}, ""),
                isOneWarningWith("sysctl -w net.ipv4.ip_local_reserved_ports=32766-32770"));
    EXPECT_THAT(warnings({32768, 60999}, "5,32768-32769,40000"), testing::SizeIs(1));
    EXPECT_THAT(warnings({32768, 60999}, "5,32768-32769,32770"), hasNoWarning());
    EXPECT_THAT(warnings({32771, 60999}, ""), hasNoWarning());
}

TEST(SteeringWarnings, AreNotGivenForAFileWithoutInstancePorts) {
    EXPECT_THAT(steeringWarnings(Configuration{}), hasNoWarning());
}

}  // namespace
}  // namespace vesk::controller
