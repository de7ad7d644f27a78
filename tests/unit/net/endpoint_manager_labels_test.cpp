#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "net/endpoint_manager_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LabelTablesTest : public EndpointManagerTest {};

TEST_F(LabelTablesTest, CreatesAuxiliaryFlowsFromTheRecordOfTheirOwner) {
    declareOwner(5, 0x12, 0xabcd9999);
    const EndpointPtr endpoint = create(0x120034);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->flow.isAuxFlow, 1);
    EXPECT_EQ(endpoint->flow.label, 0x120034U);
    EXPECT_EQ(endpoint->flow.up.label, 0xabcd0034U);
    EXPECT_EQ(endpoint->flow.up.addrInfo.port(), 4500);
    manager->deleteEndpoint(0x120034);
    EXPECT_NE(create(0x120034), nullptr);
}

TEST_F(LabelTablesTest, SendsAuxiliaryFlowsToTheAuxiliaryAddress) {
    FlowDesc scratch;
    scratch.upAuxFlowAddrInfo = IPAddrInfo("::1", 4600);
    scratch.downAuxFlowLabelPrefix = 0x12;
    scratch.upAuxFlowLabel = 0x10000;
    declare(5, scratch,
            {"down_aux_flow_label_prefix", "up_aux_flow_label", "up_aux_flow_addrinfo"});
    const EndpointPtr endpoint = create(0x120034);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->family, AF_INET6);
    EXPECT_EQ(endpoint->flow.up.addrInfo.port(), 4600);
}

TEST_F(LabelTablesTest, PrefersADeclaredLabelToAPrefix) {
    declareOwner(5, 0x12, 0xab000000);
    declare(0x120034);
    const EndpointPtr endpoint = create(0x120034);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->flow.isAuxFlow, 0);
    EXPECT_EQ(endpoint->flow.up.label, 0U);
}

TEST_F(LabelTablesTest, DeclaringAnAuxiliaryLabelMakesItAMainLabel) {
    declareOwner(5, 0x12, 0xab000000);
    ASSERT_NE(create(0x120034), nullptr);
    // Its record is a copy of the owner's record and includes the prefix, hence the warning.
    EXPECT_EQ(printedBy([this] { declare(0x120034); }),
              "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label "
              "1179700; label prefix 18\n");
    EXPECT_EQ(create(0x120034)->flow.isAuxFlow, 0);
    // It is no longer removed with the owner.
    manager->removeLabel(5);
    EXPECT_NE(manager->findEndpointByLabel(0x120034), nullptr);
    EXPECT_TRUE(manager->knowsLabel(0x120034));
}

/// Shows whether an auxiliary flow's record still exists: declaring the label merges into it.
class AuxiliaryRecordTest : public EndpointManagerTest {
 protected:
    void SetUp() override {
        EndpointManagerTest::SetUp();
        declareOwner(5, 0x12, 0xab000000);
        endpoint = create(label);
        ASSERT_NE(endpoint, nullptr);
    }
    void TearDown() override {
        endpoint.reset();
        EndpointManagerTest::TearDown();
    }

    /// The upstream label after a "set" that does not name it.
    std::uint32_t upLabelWhenDeclared() {
        printedBy([this] { declare(label); });
        return create(label)->flow.up.label;
    }

    static constexpr std::uint32_t label = 0x120034;
    static constexpr std::uint32_t upLabel = 0xab000034;
    EndpointPtr endpoint;
};

TEST_F(AuxiliaryRecordTest, RemainsWhenTheEndpointIsDeleted) {
    manager->deleteEndpoint(*endpoint);
    EXPECT_EQ(upLabelWhenDeclared(), upLabel);
}

TEST_F(AuxiliaryRecordTest, RemainsWhenTheEndpointOfTheLabelIsDeleted) {
    manager->deleteEndpoint(label);
    EXPECT_EQ(upLabelWhenDeclared(), upLabel);
}

TEST_F(AuxiliaryRecordTest, IsDeletedWhenTheCreationThatMadeItIsUndone) {
    manager->undoCreation(*endpoint);
    EXPECT_EQ(manager->findEndpointByLabel(label), nullptr);
    EXPECT_EQ(upLabelWhenDeclared(), 0U);
}

TEST_F(AuxiliaryRecordTest, RemainsWhenALaterCreationIsUndone) {
    manager->deleteEndpoint(*endpoint);
    endpoint = create(label);
    manager->undoCreation(*endpoint);
    EXPECT_EQ(manager->findEndpointByLabel(label), nullptr);
    EXPECT_EQ(upLabelWhenDeclared(), upLabel);
}

TEST_F(AuxiliaryRecordTest, RemainsWhenALaterCreationFails) {
    manager->deleteEndpoint(*endpoint);
    printedBy([this] {
        const DescriptorShortage shortage(0);
        EXPECT_EQ(create(label), nullptr);
    });
    EXPECT_EQ(upLabelWhenDeclared(), upLabel);
}

TEST_F(AuxiliaryRecordTest, IsDeletedWhenTheFirstCreationFails) {
    printedBy([this] {
        const DescriptorShortage shortage(0);
        EXPECT_EQ(create(label + 1), nullptr);
        declare(label + 1);
    });
    EXPECT_EQ(create(label + 1)->flow.up.label, 0U);
}

TEST_F(AuxiliaryRecordTest, KeepsTheSuccessorWhenTheCreationOfAnOldEndpointIsUndone) {
    manager->deleteEndpoint(*endpoint);
    const EndpointPtr successor = create(label);
    manager->undoCreation(*endpoint);
    EXPECT_EQ(manager->findEndpointByLabel(label), successor);
}

TEST_F(AuxiliaryRecordTest, OfALaterOwnerIsDeletedWhenItsCreationIsUndone) {
    manager->deleteEndpoint(*endpoint);
    manager->removeLabel(5);
    declareOwner(6, 0x12, 0xac000000);
    endpoint = create(label);
    manager->undoCreation(*endpoint);
    EXPECT_EQ(upLabelWhenDeclared(), 0U);
}

TEST_F(LabelTablesTest, RemovesALabelWithItsEndpoint) {
    declare(5);
    const EndpointPtr endpoint = create(5);
    manager->removeLabel(5);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(endpoint->rdsockfd), nullptr);
    EXPECT_EQ(create(5), nullptr);
    manager->removeLabel(5);
}

TEST_F(LabelTablesTest, RemovesAnEndpointOfALabelThatIsNotDeclared) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(5, 100, 101)), 0);
    manager->removeLabel(5);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(100), nullptr);
}

TEST_F(LabelTablesTest, RemovesAnOwnerWithItsPrefixAndAuxiliaryFlows) {
    declareOwner(5, 0x12, 0xab000000);
    declareOwner(6, 0x13, 0xac000000);
    for (const std::uint32_t label : {5U, 0x120001U, 0x120002U, 0x130001U}) {
        ASSERT_NE(create(label), nullptr);
    }
    const int auxSocket = manager->findEndpointByLabel(0x120002)->rdsockfd;
    manager->removeLabel(5);
    EXPECT_THAT(labels(), ElementsAre(0x130001));
    EXPECT_EQ(manager->findEndpointByFd(auxSocket), nullptr);
    EXPECT_FALSE(isOpen(auxSocket));
    EXPECT_FALSE(manager->knowsLabel(0x120001));
    EXPECT_TRUE(manager->knowsLabel(0x130002));
}

TEST_F(LabelTablesTest, RemovingASecondOwnerKeepsThePrefixOfTheFirst) {
    declareOwner(5, 0x12, 0xab000000);
    printedBy([this] { declareOwner(6, 0x12, 0xac000000); });
    ASSERT_NE(create(0x120001), nullptr);
    manager->removeLabel(6);
    EXPECT_NE(manager->findEndpointByLabel(0x120001), nullptr);
    EXPECT_EQ(create(0x120002)->flow.up.label, 0xab000002U);
}

TEST_F(LabelTablesTest, RemovesAnAuxiliaryLabelAndKeepsTheOthers) {
    declareOwner(5, 0x12, 0xab000000);
    ASSERT_NE(create(0x120001), nullptr);
    ASSERT_NE(create(0x120002), nullptr);
    manager->removeLabel(0x120001);
    EXPECT_THAT(labels(), ElementsAre(0x120002));
    EXPECT_TRUE(manager->knowsLabel(0x120001));
    EXPECT_NE(create(0x120001), nullptr);
    manager->removeLabel(5);
    EXPECT_THAT(labels(), IsEmpty());
}

TEST_F(LabelTablesTest, MovesAPrefixWithItsOwner) {
    declareOwner(5, 0x12, 0xab000000);
    ASSERT_NE(create(0x120001), nullptr);
    FlowDesc moved;
    moved.downAuxFlowLabelPrefix = 0x14;
    manager->setLabel(5, moved, {"down_aux_flow_label_prefix"});
    EXPECT_EQ(manager->findEndpointByLabel(0x120001), nullptr);
    EXPECT_FALSE(manager->knowsLabel(0x120001));
    EXPECT_TRUE(manager->knowsLabel(0x140001));
}

TEST_F(LabelTablesTest, WarnsAboutASecondOwner) {
    declareOwner(5, 0x12, 0xab000000);
    EXPECT_EQ(printedBy([this] { declareOwner(4000000000, 0x12, 0xac000000); }),
              "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label "
              "4000000000; label prefix 18\n");
}

TEST_F(LabelTablesTest, SetReleasesTheOldEndpointOutsideTheLock) {
    declare(5);
    bool lookedUp = false;
    manager->createEndpoint(5, [&](int rdsockfd, int wrsockfd) {
        lookedUp = manager->knowsLabel(5);
        closeEndpointSockets(rdsockfd, wrsockfd);
    });
    declare(5);
    EXPECT_TRUE(lookedUp);
}

TEST_F(LabelTablesTest, KeepsTheRecordWhenTheMergedAddressCannotBeResolved) {
    declare(5);
    ASSERT_NE(create(5), nullptr);
    FlowDesc scratch;
    scratch.up.addrInfo = IPAddrInfo("fe80::1::2", 0);
    EXPECT_THROW(manager->setLabel(5, scratch, {"up_addrinfo"}), std::runtime_error);
    EXPECT_NE(manager->findEndpointByLabel(5), nullptr);
    EXPECT_TRUE(manager->knowsLabel(5));
}

}  // namespace
}  // namespace vesk
