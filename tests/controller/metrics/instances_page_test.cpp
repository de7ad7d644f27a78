// What the pages show of several instances.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "metrics/metrics_server.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;
using testing::Not;

class InstancesPageTest : public testing::Test {
 protected:
    InstancesPageTest() {
        server_.makeCurrent(second_);
        for (const ChildId child : {ChildId{0}, second_}) {
            server_.childUp(true, child);
            server_.setStage(Stage::settled, child);
            server_.setListening(true, true, child);
            server_.setFlows(3, 2, child);
        }
    }

    void report(std::uint64_t received, ChildId child) {
        Report report;
        report.downstream.emplace().received = received;
        server_.update(report, {}, child);
    }

    MetricsServer server_{false};
    const ChildId second_ = server_.addChild(1);
};

TEST_F(InstancesPageTest, ShowsEachInstanceAndTheirSum) {
    report(7, 0);
    report(4, second_);
    for (const char* line :
         {"vesk_downstream_received_datagrams_total 11",
          "vesk_instance_downstream_received_datagrams_total{instance=\"0\"} 7",
          "vesk_instance_downstream_received_datagrams_total{instance=\"1\"} 4",
          "vesk_instance_up{instance=\"1\"} 1", "vesk_instance_listening{instance=\"1\"} 1",
          "vesk_instance_flows_active{instance=\"1\"} 2", "vesk_flows_active 4",
          "vesk_instance_udp_dropped_datagrams_total{instance=\"1\",side=\"lateral\"} 0"}) {
        EXPECT_THAT(server_.page(), HasSubstr("\n" + std::string(line) + "\n"));
    }
}

TEST_F(InstancesPageTest, ASingleInstanceIsNotShownApart) {
    MetricsServer single(false);
    EXPECT_THAT(single.page(), Not(HasSubstr("vesk_instance_")));
    // Neither is one that is replaced.
    single.makeCurrent(single.addChild(0));
    EXPECT_THAT(single.page(), Not(HasSubstr("vesk_instance_")));
}

TEST_F(InstancesPageTest, OneInstanceThatIsDownIsNamed) {
    EXPECT_EQ(server_.obstacle(), "");
    EXPECT_TRUE(server_.healthy());
    server_.childUp(false, second_);
    EXPECT_EQ(server_.obstacle(), "instance 1: the forwarder is not running");
    EXPECT_FALSE(server_.healthy());
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_up 0\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_flows_active 2\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_instance_up{instance=\"0\"} 1\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_instance_up{instance=\"1\"} 0\n"));
}

// The flows were accepted in part only: the fixture's children refuse one of three.
TEST_F(InstancesPageTest, ARefusedFlowIsAnObstacleOnlyIfStrict) {
    EXPECT_EQ(server_.obstacle(), "");
    server_.setStrict(true);
    EXPECT_EQ(server_.obstacle(), "instance 0: the forwarder refuses flows of the file");
    server_.setFlows(3, 3, 0);
    EXPECT_EQ(server_.obstacle(), "instance 1: the forwarder refuses flows of the file");
    server_.setFlows(3, 3, second_);
    EXPECT_EQ(server_.obstacle(), "");
    server_.setFlows(3, 2, second_);
    server_.setStrict(false);
    EXPECT_EQ(server_.obstacle(), "");
}

TEST_F(InstancesPageTest, IsUnreadyButHealthyWhileTheControllerLeaves) {
    server_.leave();
    server_.setStage(Stage::settled, second_);
    EXPECT_EQ(server_.obstacle(), "the controller is about to end");
    EXPECT_TRUE(server_.healthy());
}

// A child that is set up to take over does not make its instance unready.
TEST_F(InstancesPageTest, ANewChildIsShownOnceItHasTakenOver) {
    report(7, 0);
    const ChildId next = server_.addChild(0);
    server_.childUp(true, next);
    EXPECT_EQ(server_.obstacle(), "");
    server_.makeCurrent(next);
    EXPECT_EQ(server_.obstacle(), "instance 0: the forwarder is being set up");
    server_.removeChild(0);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_downstream_received_datagrams_total 7\n"));
}

TEST_F(InstancesPageTest, ShowsTheSteering) {
    EXPECT_THAT(server_.page(), Not(HasSubstr("vesk_steering")));
    server_.setSteering({true, {1, 2, 3, 4}});
    EXPECT_EQ(server_.obstacle(), "");
    for (const char* line :
         {"vesk_steering_active 1", "vesk_steering_short_packets_total 1",
          "vesk_steering_fragmented_packets_total 2", "vesk_steering_unmatched_packets_total 3",
          "vesk_steering_direct_packets_total 4"}) {
        EXPECT_THAT(server_.page(), HasSubstr("\n" + std::string(line) + "\n"));
    }
    server_.setSteering({false, {}});
    EXPECT_EQ(server_.obstacle(), "the public port is not steered to the instances");
}

TEST_F(InstancesPageTest, ShowsWhichNamesOfPeersAreResolved) {
    EXPECT_THAT(server_.page(), Not(HasSubstr("vesk_lateral_peer_resolved")));
    server_.setPeers({{0, true}, {12, false}});
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_lateral_peer_resolved{peer=\"0\"} 1\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_lateral_peer_resolved{peer=\"12\"} 0\n"));
    EXPECT_EQ(server_.obstacle(), "");
}

TEST_F(InstancesPageTest, CountsReplacementsByOutcome) {
    server_.countReplacement(ReplacementOutcome::failed);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_replacements_total{outcome=\"done\"} 0\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_replacements_total{outcome=\"failed\"} 1\n"));
}

}  // namespace
}  // namespace vesk::controller
