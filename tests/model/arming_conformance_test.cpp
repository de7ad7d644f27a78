// Compares the model of arming with the forwarder: both run the same sequences of operations, which
// a search of the model finds, and must be in the same state after each operation.
#include <gtest/gtest.h>

#include <iostream>

#include "arming_walks.h"
#include "datapath/datapath_fixture.h"
#include "datapath/downstream.h"
#include "real_arming.h"
#include "support/printed.h"

namespace vesk::model {
namespace {

class ArmingConformance : public DatapathTest, public Surroundings {
 protected:
    void SetUp() override {
        DatapathTest::SetUp();
        declareFlow(label);
    }

    /// The first difference between model and forwarder, with the operations that lead to it.
    std::string compareAllWalks(const Bounds& bounds) {
        std::string difference;
        std::size_t operations = 0;
        ArmingWalks walks(rules, bounds);
        printedBy([&] {
            Actors actors;
            for (auto walk = walks.next(); !walk.empty() && difference.empty();
                 walk = walks.next()) {
                difference = compareWalk(walks, walk, actors);
                operations += walk.size();
            }
        });
        std::cout << walks.situations() << " situations, " << walks.steps() << " different steps, "
                  << operations << " operations\n";
        EXPECT_GT(operations, 0U);
        return difference;
    }

    EndpointPtr openFlow() override {
        hand(*downstream, framed(label, toBytes("request")), peer.address(), {});
        upstream.receive();
        return manager().findEndpointByLabel(label);
    }
    void removeFlow() override { manager().deleteEndpoint(label); }
    void sendReply(const SocketAddress& to) override {
        upstream.send(framed(label, toBytes("reply")), to);
    }
    std::size_t takeReplies() override {
        std::size_t count = 0;
        for (; !peer.empty(); ++count) {
            peer.receive();
        }
        return count;
    }
    SocketAddress addressOf(const VeskEndpointDescriptor& endpoint) override {
        return withPort(upstream.address(), portOf(boundAddress(endpoint.rdsockfd)));
    }

    static constexpr Bounds twoFlows{.endpoints = 2, .arrivals = 2, .removals = 1, .channel = 4};
    Rules rules;

 private:
    std::string compareWalk(const ArmingWalks& walks, const std::vector<ArmingWalks::Step>& walk,
                            Actors& actors) {
        RealArming real(context, *this, actors);
        std::string trace;
        for (const ArmingWalks::Step& step : walk) {
            trace += nameOf(step.operation) + "\n";
            real.carryOut(step.operation);
            const std::string difference = real.differenceFrom(walks.situation(step.to).state);
            if (!difference.empty()) {
                return trace + difference;
            }
        }
        return {};
    }

    static constexpr std::uint32_t label = 0x5a;
};

TEST_F(ArmingConformance, StatesMatchForOneFlowWithFailures) {
    EXPECT_EQ(compareAllWalks({.endpoints = 1, .arrivals = 2, .removals = 1, .failures = 2}), "");
}

TEST_F(ArmingConformance, StatesMatchForAFlowWithTheDescriptorsOfAnEarlierOne) {
    EXPECT_EQ(compareAllWalks(twoFlows), "");
}

// When the model is made to differ from the code, the comparison must detect it.

TEST_F(ArmingConformance, DetectsAModelWithoutClaims) {
    rules.claimsSocket = false;
    EXPECT_NE(compareAllWalks(twoFlows), "");
}

TEST_F(ArmingConformance, DetectsAModelThatEndsTheClaimWhenTheSocketIsDrained) {
    rules.claimsUntilSent = false;
    EXPECT_NE(compareAllWalks(twoFlows), "");
}

TEST_F(ArmingConformance, DetectsAModelThatArmsASocketTwice) {
    rules.armsOnce = false;
    EXPECT_NE(compareAllWalks(twoFlows), "");
}

TEST_F(ArmingConformance, DetectsAModelThatHoldsNoServedEndpoint) {
    rules.holdsUntilSent = false;
    rules.holdsDrained = false;
    EXPECT_NE(compareAllWalks(twoFlows), "");
}

TEST_F(ArmingConformance, DetectsAModelThatDoesNotArmAfterARefusedReceive) {
    rules.armsAfterRefusedReceive = false;
    EXPECT_NE(compareAllWalks({.endpoints = 1, .failures = 1}), "");
}

}  // namespace
}  // namespace vesk::model
