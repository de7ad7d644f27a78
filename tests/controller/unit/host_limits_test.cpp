#include "service/host_limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Configuration withFlows(std::uint32_t count) {
    Configuration configuration;
    for (std::uint32_t label = 1; label <= count; ++label) {
        configuration.flows[label];
    }
    return configuration;
}

TEST(Limits, CountTwoDescriptorsForEachFlow) {
    EXPECT_THAT(descriptorWarnings(withFlows(1000), 2100), IsEmpty());
    EXPECT_THAT(descriptorWarnings(withFlows(1000), 2099),
                ElementsAre(HasSubstr("is 2099, but 1000 flows need 2100")));
    EXPECT_THAT(descriptorWarnings(withFlows(0), 1024), IsEmpty());
}

TEST(Limits, CountAPortForEachFlowWithoutASource) {
    Configuration configuration = withFlows(101);
    configuration.flows.at(1).source = HostPort{"127.0.0.1", 7};
    EXPECT_THAT(portWarnings(configuration, {1001, 1100}), IsEmpty());
    EXPECT_THAT(portWarnings(configuration, {1001, 1099}),
                ElementsAre(HasSubstr("has 99 ports, but 100 flows without a source")));
    // The two families have their own ports.
    configuration.flows.at(2).upstream.host = "::1";
    EXPECT_THAT(portWarnings(configuration, {1001, 1099}), IsEmpty());
}

TEST(Limits, WarnOfSmallBuffersWithTheRemedy) {
    EXPECT_THAT(bufferWarnings({1048575, 262143}),
                ElementsAre(HasSubstr("sysctl -w net.core.rmem_max=1048576"),
                            HasSubstr("sysctl -w net.core.wmem_max=262144")));
    EXPECT_THAT(bufferWarnings({1048576, 262144}), IsEmpty());
}

TEST(Limits, DoNotWarnOfLimitsThatCannotBeRead) {
    EXPECT_THAT(bufferWarnings({}), IsEmpty());
}

}  // namespace
}  // namespace vesk::controller
