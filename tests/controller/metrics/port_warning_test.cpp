#include "kernel/port_warning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::HasSubstr;

TEST(PortWarningTest, WarnsAgainOnlyAfterEnoughPortsWereFree) {
    PortWarning warning;
    EXPECT_FALSE(warning.check({89, 11}));
    EXPECT_THAT(warning.check({90, 10}).value(),
                HasSubstr("ephemeral ports are running out: 10 of 100 are left"));
    EXPECT_FALSE(warning.check({95, 5}));
    EXPECT_FALSE(warning.check({81, 19}));
    EXPECT_FALSE(warning.check({95, 5}));
    EXPECT_FALSE(warning.check({80, 20}));
    EXPECT_TRUE(warning.check({100, 0}));
}

TEST(PortWarningTest, NamesTheSetting) {
    PortWarning warning;
    EXPECT_THAT(warning.check({1, 0}).value(), HasSubstr("net.ipv4.ip_local_port_range"));
}

}  // namespace
}  // namespace vesk::controller
