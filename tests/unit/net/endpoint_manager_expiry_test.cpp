#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "net/endpoint_manager_fixture.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ExpiryTest : public EndpointManagerTest {
 protected:
    void SetUp() override {
        EndpointManagerTest::SetUp();
        declareOwner(5, 0x12, 0xab000000);
        declare(7);
        for (const std::uint32_t label : {7U, 0x120001U, 5U}) {
            ASSERT_NE(create(label), nullptr);
        }
    }

    std::vector<std::uint32_t> expire(bool expireMain, bool expireAux) {
        std::vector<std::uint32_t> expired;
        reported.clear();
        const ExpiryReport report = [this](const VeskEndpointDescriptor& endpoint) {
            reported.push_back(endpoint.label);
        };
        for (const EndpointPtr& endpoint : manager->expireIdle(expireMain, expireAux, report)) {
            expired.push_back(endpoint->label);
        }
        return expired;
    }

    std::vector<std::uint32_t> reported;
};

TEST_F(ExpiryTest, MarksInOnePassAndRemovesInTheNext) {
    EXPECT_THAT(expire(true, true), IsEmpty());
    EXPECT_TRUE(manager->findEndpointByLabel(5)->idle);
    EXPECT_THAT(expire(true, true), ElementsAre(5, 7, 0x120001));
    EXPECT_THAT(labels(), IsEmpty());
    EXPECT_THAT(expire(true, true), IsEmpty());
}

TEST_F(ExpiryTest, ReportsExpiredEndpoints) {
    expire(true, true);
    EXPECT_THAT(reported, IsEmpty());
    expire(true, true);
    EXPECT_THAT(reported, ElementsAre(5, 7, 0x120001));
}

TEST_F(ExpiryTest, ReportsBoundFlowsLast) {
    FlowDesc bound;
    bound.up.srcAddrInfo = IPAddrInfo("127.0.0.1", 4501);
    declare(6, bound, {"up_src_addrinfo"});
    create(6);
    expire(true, true);
    EXPECT_THAT(expire(true, true), ElementsAre(5, 6, 7, 0x120001));
    EXPECT_THAT(reported, ElementsAre(5, 7, 0x120001, 6));
}

TEST_F(ExpiryTest, ReportsAnEndpointBeforeItLeavesTheTables) {
    expire(true, true);
    std::vector<std::uint64_t> removalsThen;
    manager->expireIdle(true, true, [&](const VeskEndpointDescriptor&) {
        removalsThen.push_back(manager->removals());
    });
    EXPECT_THAT(removalsThen, ElementsAre(0, 1, 2));
    EXPECT_EQ(manager->removals(), 3U);
}

TEST_F(ExpiryTest, KeepsAFlowThatHadTraffic) {
    expire(true, true);
    manager->findEndpointByLabel(7)->markActive();
    EXPECT_THAT(expire(true, true), ElementsAre(5, 0x120001));
    EXPECT_THAT(expire(true, true), ElementsAre(7));
}

TEST_F(ExpiryTest, KeepsMainFlowsWhenOnlyAuxiliaryFlowsExpire) {
    expire(false, true);
    EXPECT_FALSE(manager->findEndpointByLabel(5)->idle);
    EXPECT_THAT(expire(false, true), ElementsAre(0x120001));
    EXPECT_THAT(expire(false, true), IsEmpty());
    EXPECT_THAT(labels(), ElementsAre(5, 7));
}

TEST_F(ExpiryTest, KeepsAuxiliaryFlowsWhenOnlyMainFlowsExpire) {
    expire(true, false);
    EXPECT_FALSE(manager->findEndpointByLabel(0x120001)->idle);
    EXPECT_THAT(expire(true, false), ElementsAre(5, 7));
    EXPECT_THAT(expire(true, false), IsEmpty());
    EXPECT_THAT(labels(), ElementsAre(0x120001));
}

TEST_F(ExpiryTest, KeepsMainLabelsDeclared) {
    expire(true, true);
    expire(true, true);
    EXPECT_NE(create(7), nullptr);
    EXPECT_NE(create(0x120002), nullptr);
}

TEST_F(ExpiryTest, DeletesTheRecordOfAnAuxiliaryFlow) {
    expire(false, true);
    expire(false, true);
    FlowDesc changed;
    changed.upAuxFlowLabel = 0xcd000000;
    manager->setLabel(5, changed, {"up_aux_flow_label"});
    EXPECT_EQ(create(0x120001)->flow.up.label, 0xcd000001U);
}

TEST_F(ExpiryTest, RemovesBothDescriptorsFromTheTables) {
    const EndpointPtr held = manager->findEndpointByLabel(7);
    expire(true, true);
    expire(true, true);
    EXPECT_EQ(manager->findEndpointByFd(held->rdsockfd), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(held->wrsockfd), nullptr);
    EXPECT_TRUE(isOpen(held->rdsockfd));
}

TEST_F(ExpiryTest, TreatsAnEndpointWithoutARecordAsAMainFlow) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(9, 100, 101)), 0);
    expire(false, true);
    EXPECT_FALSE(manager->findEndpointByLabel(9)->idle);
    expire(true, false);
    EXPECT_TRUE(manager->findEndpointByLabel(9)->idle);
}

}  // namespace
}  // namespace vesk
