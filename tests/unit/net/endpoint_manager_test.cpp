#include "net/endpoint_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "net/endpoint_sockets.h"
#include "support/descriptors.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The tables alone, with endpoints that close their sockets themselves.
class EndpointManagerTest : public DescriptorCountingTest {
 protected:
    /// Declares a label with an upstream address and what `change` adds.
    void declare(std::uint32_t label, FlowDesc scratch = FlowDesc(),
                 std::vector<std::string> members = {}) {
        scratch.up.addrInfo = IPAddrInfo("127.0.0.1", 4500);
        members.emplace_back("up_addrinfo");
        manager->setLabel(label, scratch, members);
    }

    /// Declares a label that owns a prefix.
    void declareOwner(std::uint32_t label, std::uint16_t prefix, std::uint32_t upAuxLabel) {
        FlowDesc scratch;
        scratch.downAuxFlowLabelPrefix = prefix;
        scratch.upAuxFlowLabel = upAuxLabel;
        scratch.up.label = 77;
        declare(label, scratch, {"down_aux_flow_label_prefix", "up_aux_flow_label", "up_label"});
    }

    EndpointPtr create(std::uint32_t label) {
        return manager->createEndpoint(label, closeEndpointSockets);
    }

    /// An endpoint that was not made by the tables.
    static EndpointPtr endpointOf(std::uint32_t label, int rdsockfd, int wrsockfd) {
        return std::make_unique<VeskEndpointDescriptor>(label, rdsockfd, wrsockfd, FlowDesc(label),
                                                        [](int, int) {});
    }

    std::vector<std::uint32_t> labels() {
        std::vector<std::uint32_t> result;
        for (const EndpointPtr& endpoint : manager->endpoints()) {
            result.push_back(endpoint->label);
        }
        return result;
    }

    void TearDown() override {
        manager.reset();
        DescriptorCountingTest::TearDown();
    }

    std::unique_ptr<EndpointManager> manager = std::make_unique<EndpointManager>();
};

TEST_F(EndpointManagerTest, MakesTheEndpointOfADeclaredLabel) {
    FlowDesc scratch;
    scratch.up.label = 9;
    scratch.isMultiplex = true;
    declare(5, scratch, {"up_label", "is_multiplex"});
    EndpointPtr endpoint;
    EXPECT_EQ(printedBy([&] { endpoint = create(5); }), "");
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->label, 5U);
    EXPECT_EQ(endpoint->family, AF_INET);
    EXPECT_EQ(endpoint->flow.up.label, 9U);
    EXPECT_TRUE(endpoint->flow.isMultiplex);
    EXPECT_EQ(endpoint->flow.isAuxFlow, 0);
    EXPECT_TRUE(isOpen(endpoint->rdsockfd));
    EXPECT_TRUE(isOpen(endpoint->wrsockfd));
    EXPECT_FALSE(endpoint->prepared);
}

TEST_F(EndpointManagerTest, FilesAnEndpointUnderLabelAndBothDescriptors) {
    declare(5);
    const EndpointPtr endpoint = create(5);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(manager->findEndpointByLabel(5), endpoint);
    EXPECT_EQ(manager->findEndpointByFd(endpoint->rdsockfd), endpoint);
    EXPECT_EQ(manager->findEndpointByFd(endpoint->wrsockfd), endpoint);
    EXPECT_EQ(manager->findEndpointByLabel(6), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(-1), nullptr);
}

TEST_F(EndpointManagerTest, MakesNothingForAnUnknownLabelWithoutAWord) {
    declareOwner(5, 0x12, 0xab000000);
    const AtLogLevel level("trace");
    EXPECT_EQ(printedBy([this] {
                  EXPECT_EQ(create(6), nullptr);
                  EXPECT_EQ(create(0x130001), nullptr);
                  EXPECT_EQ(create(0), nullptr);
              }),
              "");
    EXPECT_FALSE(manager->knowsLabel(6));
    EXPECT_FALSE(manager->knowsLabel(0x130001));
    EXPECT_TRUE(manager->knowsLabel(5));
    EXPECT_TRUE(manager->knowsLabel(0x120001));
}

TEST_F(EndpointManagerTest, ReportsAFlowWithoutAnUpstreamAddress) {
    manager->setLabel(5, FlowDesc(), {});
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(create(5), nullptr); }),
              "error socket: new endpoint socket. Error: Address family not supported by "
              "protocol\nerror createEndpoint: Failed to create endpoint sockets (family 0): "
              "-97\n");
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
}

TEST_F(EndpointManagerTest, ReportsThatNoSocketsAreToBeHad) {
    declare(5);
    const std::string printed = printedBy([this] {
        const DescriptorShortage shortage(0);
        EXPECT_EQ(create(5), nullptr);
    });
    EXPECT_EQ(printed,
              "error socket: new endpoint socket. Error: Too many open files\n"
              "error createEndpoint: Failed to create endpoint sockets (family 2): -24\n");
    EXPECT_NE(create(5), nullptr);
}

TEST_F(EndpointManagerTest, RefusesASecondEndpointForADescriptorThatIsFiled) {
    declare(5);
    // A stale entry under the number that the kernel gives out next.
    int next = -1;
    {
        const UniqueFd lowest(dup(0));
        next = lowest.get();
    }
    const EndpointPtr stale = endpointOf(6, next, 1000);
    ASSERT_EQ(manager->addEndpoint(stale), 0);
    std::vector<std::pair<int, int>> deleted;
    const std::string printed = printedBy([&] {
        // The capture holds a descriptor open, which moves the lowest number.
        const EndpointPtr other = endpointOf(7, next + 1, 1001);
        EXPECT_EQ(manager->addEndpoint(other), 0);
        EXPECT_EQ(manager->createEndpoint(5,
                                          [&deleted](int rdsockfd, int wrsockfd) {
                                              deleted.emplace_back(rdsockfd, wrsockfd);
                                              closeEndpointSockets(rdsockfd, wrsockfd);
                                          }),
                  nullptr);
    });
    EXPECT_EQ(printed,
              "error Endpoint exists for rdsockfd\n"
              "error createEndpoint: Failed to add new endpoint to collection: -1\n");
    EXPECT_EQ(deleted.size(), 1U);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    // What was filed before is untouched, and the label can be had once the number is free.
    EXPECT_EQ(manager->findEndpointByFd(next), stale);
    manager->deleteEndpoint(6);
    manager->deleteEndpoint(7);
    EXPECT_NE(create(5), nullptr);
}

TEST_F(EndpointManagerTest, ReleasesARefusedEndpointOutsideItsLock) {
    declare(5);
    EndpointPtr stale;
    printedBy([&] {
        const int lowest = dup(0);
        closeEndpointSockets(lowest, -1);
        stale = endpointOf(6, lowest, 1000);
        EXPECT_EQ(manager->addEndpoint(stale), 0);
        bool lookedUp = false;
        create(6);
        manager->createEndpoint(5, [&](int rdsockfd, int wrsockfd) {
            // With the lock held this would never come back.
            lookedUp = manager->findEndpointByLabel(6) == stale;
            closeEndpointSockets(rdsockfd, wrsockfd);
        });
        EXPECT_TRUE(lookedUp);
    });
}

TEST_F(EndpointManagerTest, AddsAnEndpointOnce) {
    const EndpointPtr first = endpointOf(5, 100, 101);
    EXPECT_EQ(manager->addEndpoint(first), 0);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(manager->addEndpoint(first), -1); }),
              "error Endpoint exists for rdsockfd\n");
}

TEST_F(EndpointManagerTest, KeepsTheEndpointThatALabelHas) {
    const EndpointPtr first = endpointOf(5, 100, 101);
    const EndpointPtr second = endpointOf(5, 102, 103);
    EXPECT_EQ(manager->addEndpoint(first), 0);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(manager->addEndpoint(second), 0); }), "");
    EXPECT_EQ(manager->findEndpointByLabel(5), first);
    EXPECT_EQ(manager->findEndpointByFd(102), second);
}

TEST_F(EndpointManagerTest, TakesTheReadDescriptorBackWhereTheWriteDescriptorIsFiled) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(5, 100, 101)), 0);
    const EndpointPtr second = endpointOf(6, 102, 101);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(manager->addEndpoint(second), -1); }),
              "error Endpoint exists for wrsockfd\n");
    EXPECT_EQ(manager->findEndpointByFd(102), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(101)->label, 5U);
    // The label itself stays filed.
    EXPECT_EQ(manager->findEndpointByLabel(6), second);
}

TEST_F(EndpointManagerTest, FindsNothingAfterADeletionEvenWhileSomebodyHoldsTheEndpoint) {
    declare(5);
    const EndpointPtr held = create(5);
    ASSERT_NE(held, nullptr);
    manager->deleteEndpoint(5);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(held->rdsockfd), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(held->wrsockfd), nullptr);
    EXPECT_TRUE(isOpen(held->rdsockfd));
    EXPECT_TRUE(manager->knowsLabel(5));
    manager->deleteEndpoint(5);
}

TEST_F(EndpointManagerTest, ReleasesADeletedEndpointOutsideItsLock) {
    declare(5);
    bool lookedUp = false;
    manager->createEndpoint(5, [&](int rdsockfd, int wrsockfd) {
        lookedUp = manager->findEndpointByLabel(5) == nullptr;
        closeEndpointSockets(rdsockfd, wrsockfd);
    });
    manager->deleteEndpoint(5);
    EXPECT_TRUE(lookedUp);
}

TEST_F(EndpointManagerTest, DeletesAnEndpointButNotItsSuccessor) {
    declare(5);
    const EndpointPtr old = create(5);
    manager->deleteEndpoint(*old);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    const EndpointPtr successor = create(5);
    ASSERT_NE(successor, nullptr);
    manager->deleteEndpoint(*old);
    EXPECT_EQ(manager->findEndpointByLabel(5), successor);
    EXPECT_EQ(manager->findEndpointByFd(successor->rdsockfd), successor);
}

TEST_F(EndpointManagerTest, ListsEndpointsInTheOrderOfTheirLabels) {
    EXPECT_THAT(labels(), IsEmpty());
    for (const std::uint32_t label : {7U, 5U, 0xffffffffU, 6U}) {
        declare(label);
        create(label);
    }
    EXPECT_THAT(labels(), ElementsAre(5, 6, 7, 0xffffffff));
}

TEST_F(EndpointManagerTest, MakesAuxiliaryFlowsFromTheirOwnersRecord) {
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

TEST_F(EndpointManagerTest, SendsAuxiliaryFlowsToAnAddressOfTheirOwn) {
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

TEST_F(EndpointManagerTest, PrefersADeclaredLabelToItsPrefix) {
    declareOwner(5, 0x12, 0xab000000);
    declare(0x120034);
    const EndpointPtr endpoint = create(0x120034);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->flow.isAuxFlow, 0);
    EXPECT_EQ(endpoint->flow.up.label, 0U);
}

TEST_F(EndpointManagerTest, MakesALabelOfItsOwnOfAnAuxiliaryOneThatIsDeclared) {
    declareOwner(5, 0x12, 0xab000000);
    ASSERT_NE(create(0x120034), nullptr);
    // Its record came from the owner's, and with it what makes an owner.
    EXPECT_EQ(printedBy([this] { declare(0x120034); }),
              "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label "
              "1179700; label prefix 18\n");
    EXPECT_EQ(create(0x120034)->flow.isAuxFlow, 0);
    // It no longer goes with the owner.
    manager->removeLabel(5);
    EXPECT_NE(manager->findEndpointByLabel(0x120034), nullptr);
    EXPECT_TRUE(manager->knowsLabel(0x120034));
}

TEST_F(EndpointManagerTest, RemovesALabelWithItsEndpoint) {
    declare(5);
    const EndpointPtr endpoint = create(5);
    manager->removeLabel(5);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(endpoint->rdsockfd), nullptr);
    EXPECT_EQ(create(5), nullptr);
    manager->removeLabel(5);
}

TEST_F(EndpointManagerTest, RemovesAnEndpointOfALabelThatIsNotDeclared) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(5, 100, 101)), 0);
    manager->removeLabel(5);
    EXPECT_EQ(manager->findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(100), nullptr);
}

TEST_F(EndpointManagerTest, RemovesAnOwnerWithItsPrefixAndAuxiliaryFlows) {
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

TEST_F(EndpointManagerTest, LeavesAPrefixToItsOwner) {
    declareOwner(5, 0x12, 0xab000000);
    printedBy([this] { declareOwner(6, 0x12, 0xac000000); });
    ASSERT_NE(create(0x120001), nullptr);
    manager->removeLabel(6);
    EXPECT_NE(manager->findEndpointByLabel(0x120001), nullptr);
    EXPECT_EQ(create(0x120002)->flow.up.label, 0xab000002U);
}

TEST_F(EndpointManagerTest, RemovesAnAuxiliaryLabelAndLeavesItsSiblings) {
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

TEST_F(EndpointManagerTest, MovesAPrefixWithItsOwner) {
    declareOwner(5, 0x12, 0xab000000);
    ASSERT_NE(create(0x120001), nullptr);
    FlowDesc moved;
    moved.downAuxFlowLabelPrefix = 0x14;
    manager->setLabel(5, moved, {"down_aux_flow_label_prefix"});
    EXPECT_EQ(manager->findEndpointByLabel(0x120001), nullptr);
    EXPECT_FALSE(manager->knowsLabel(0x120001));
    EXPECT_TRUE(manager->knowsLabel(0x140001));
}

TEST_F(EndpointManagerTest, WarnsOfASecondOwner) {
    declareOwner(5, 0x12, 0xab000000);
    EXPECT_EQ(printedBy([this] { declareOwner(4000000000, 0x12, 0xac000000); }),
              "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label "
              "4000000000; label prefix 18\n");
}

TEST_F(EndpointManagerTest, KeepsTheRecordWhereTheMergeCannotBeResolved) {
    declare(5);
    ASSERT_NE(create(5), nullptr);
    FlowDesc scratch;
    scratch.up.addrInfo = IPAddrInfo("fe80::1::2", 0);
    EXPECT_THROW(manager->setLabel(5, scratch, {"up_addrinfo"}), std::runtime_error);
    EXPECT_NE(manager->findEndpointByLabel(5), nullptr);
    EXPECT_TRUE(manager->knowsLabel(5));
}

TEST_F(EndpointManagerTest, ReleasesWhatASetRemovesOutsideItsLock) {
    declare(5);
    bool lookedUp = false;
    manager->createEndpoint(5, [&](int rdsockfd, int wrsockfd) {
        lookedUp = manager->knowsLabel(5);
        closeEndpointSockets(rdsockfd, wrsockfd);
    });
    declare(5);
    EXPECT_TRUE(lookedUp);
}

TEST_F(EndpointManagerTest, RunsAnActionWhileNothingIsMade) {
    bool ran = false;
    manager->withoutCreation([&ran] { ran = true; });
    EXPECT_TRUE(ran);
}

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
        for (const EndpointPtr& endpoint : manager->expireIdle(expireMain, expireAux)) {
            expired.push_back(endpoint->label);
        }
        return expired;
    }
};

TEST_F(ExpiryTest, MarksInOnePassAndTakesOutInTheNext) {
    EXPECT_THAT(expire(true, true), IsEmpty());
    EXPECT_TRUE(manager->findEndpointByLabel(5)->idle);
    EXPECT_THAT(expire(true, true), ElementsAre(5, 7, 0x120001));
    EXPECT_THAT(labels(), IsEmpty());
    EXPECT_THAT(expire(true, true), IsEmpty());
}

TEST_F(ExpiryTest, KeepsWhatSawTraffic) {
    expire(true, true);
    manager->findEndpointByLabel(7)->markActive();
    EXPECT_THAT(expire(true, true), ElementsAre(5, 0x120001));
    EXPECT_THAT(expire(true, true), ElementsAre(7));
}

TEST_F(ExpiryTest, LeavesMainFlowsAlone) {
    expire(false, true);
    EXPECT_FALSE(manager->findEndpointByLabel(5)->idle);
    EXPECT_THAT(expire(false, true), ElementsAre(0x120001));
    EXPECT_THAT(expire(false, true), IsEmpty());
    EXPECT_THAT(labels(), ElementsAre(5, 7));
}

TEST_F(ExpiryTest, LeavesAuxiliaryFlowsAlone) {
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

TEST_F(ExpiryTest, ForgetsTheRecordOfAnAuxiliaryFlow) {
    expire(false, true);
    expire(false, true);
    FlowDesc changed;
    changed.upAuxFlowLabel = 0xcd000000;
    manager->setLabel(5, changed, {"up_aux_flow_label"});
    EXPECT_EQ(create(0x120001)->flow.up.label, 0xcd000001U);
}

TEST_F(ExpiryTest, UnfilesBothDescriptors) {
    const EndpointPtr held = manager->findEndpointByLabel(7);
    expire(true, true);
    expire(true, true);
    EXPECT_EQ(manager->findEndpointByFd(held->rdsockfd), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(held->wrsockfd), nullptr);
    EXPECT_TRUE(isOpen(held->rdsockfd));
}

TEST_F(ExpiryTest, TakesAnEndpointWithoutARecordForAMainFlow) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(9, 100, 101)), 0);
    expire(false, true);
    EXPECT_FALSE(manager->findEndpointByLabel(9)->idle);
    expire(true, false);
    EXPECT_TRUE(manager->findEndpointByLabel(9)->idle);
}

}  // namespace
}  // namespace vesk
