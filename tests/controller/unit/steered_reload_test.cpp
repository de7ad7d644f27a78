#include "service/steered_reload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Configuration steered() {
    Configuration configuration;
    configuration.forwarder.instances = 2;
    configuration.downstream = {"127.0.0.1", 4500};
    configuration.instancePorts = InstancePorts{4501, 4503, 4504};
    return configuration;
}

TEST(SteeredReloadTest, TakesWhatTheSteeringDoesNotDependOn) {
    Configuration wanted = steered();
    wanted.forwarder.logLevel = "error";
    wanted.forwarder.cleanupInterval = std::chrono::seconds(5);
    wanted.lateral = Lateral{{"", 8445}, {"10.0.0.1", "10.0.0.2"}, 0, 4, {{2, "10.0.0.3"}}, {}};
    EXPECT_THAT(keepSteering(steered(), wanted), IsEmpty());
    EXPECT_EQ(wanted.forwarder.logLevel, "error");
    EXPECT_EQ(wanted.forwarder.cleanupInterval, std::chrono::seconds(5));
    EXPECT_TRUE(wanted.lateral.has_value());
}

TEST(SteeredReloadTest, KeepsPortsFramingAndNumber) {
    Configuration wanted = steered();
    wanted.forwarder.instances = 4;
    wanted.forwarder.framing = "udpv1";
    wanted.downstream = {"127.0.0.2", 4600};
    wanted.instancePorts = InstancePorts{4601, 4605, 4606};
    wanted.lateral.emplace();
    EXPECT_THAT(keepSteering(steered(), wanted),
                ElementsAre("forwarder.instances", "forwarder.framing", "downstream.address",
                            "downstream.port", "downstream.instance_ports"));
    EXPECT_EQ(wanted.forwarder.instances, 2U);
    EXPECT_EQ(wanted.forwarder.framing, "udpv2");
    EXPECT_EQ(wanted.downstream, steered().downstream);
    EXPECT_EQ(wanted.instancePorts, steered().instancePorts);
    EXPECT_EQ(wanted.lateral.has_value(), false);
}

TEST(SteeredReloadTest, DoesNotBeginOrEndToSteer) {
    Configuration plain;
    plain.downstream = {"127.0.0.1", 4500};
    Configuration wanted = steered();
    EXPECT_THAT(keepSteering(plain, wanted),
                ElementsAre("forwarder.instances", "downstream.instance_ports"));
    EXPECT_EQ(wanted.instancePorts, std::nullopt);
    wanted = plain;
    keepSteering(steered(), wanted);
    EXPECT_EQ(wanted.instancePorts, steered().instancePorts);
}

// Without steering a reload moves the forwarder to another address.
TEST(SteeredReloadTest, LeavesOtherFilesAlone) {
    Configuration wanted;
    wanted.downstream = {"127.0.0.2", 4600};
    wanted.forwarder.framing = "udpv1";
    EXPECT_THAT(keepSteering(Configuration(), wanted), IsEmpty());
    EXPECT_EQ(wanted.downstream.port, 4600);
    EXPECT_EQ(wanted.forwarder.framing, "udpv1");
}

}  // namespace
}  // namespace vesk::controller
