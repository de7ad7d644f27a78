#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "net/endpoint_manager_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(EndpointManagerTest, CreatesTheEndpointOfADeclaredLabel) {
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

TEST_F(EndpointManagerTest, IgnoresUnknownLabelSilently) {
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

TEST_F(EndpointManagerTest, ReportsAShortageOfDescriptors) {
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

TEST_F(EndpointManagerTest, RefusesASecondEndpointForADescriptor) {
    declare(5);
    // A stale entry under the number that the kernel assigns next.
    int next = -1;
    {
        const UniqueFd lowest(dup(0));
        next = lowest.get();
    }
    const EndpointPtr stale = endpointOf(6, next, 1000);
    ASSERT_EQ(manager->addEndpoint(stale), 0);
    std::vector<std::pair<int, int>> deleted;
    const std::string printed = printedBy([&] {
        // The capture of the output holds one descriptor, so the next number may be one higher.
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
    // The old entry is unchanged, and the endpoint can be created once the number is free.
    EXPECT_EQ(manager->findEndpointByFd(next), stale);
    manager->deleteEndpoint(6);
    manager->deleteEndpoint(7);
    EXPECT_NE(create(5), nullptr);
}

TEST_F(EndpointManagerTest, ReleasesARefusedEndpointOutsideTheLock) {
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
            // This would block for ever if the lock were held.
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

TEST_F(EndpointManagerTest, KeepsTheFirstEndpointOfALabel) {
    const EndpointPtr first = endpointOf(5, 100, 101);
    const EndpointPtr second = endpointOf(5, 102, 103);
    EXPECT_EQ(manager->addEndpoint(first), 0);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(manager->addEndpoint(second), 0); }), "");
    EXPECT_EQ(manager->findEndpointByLabel(5), first);
    EXPECT_EQ(manager->findEndpointByFd(102), second);
}

TEST_F(EndpointManagerTest, RemovesTheReadDescriptorAgainWhenTheWriteDescriptorIsTaken) {
    ASSERT_EQ(manager->addEndpoint(endpointOf(5, 100, 101)), 0);
    const EndpointPtr second = endpointOf(6, 102, 101);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(manager->addEndpoint(second), -1); }),
              "error Endpoint exists for wrsockfd\n");
    EXPECT_EQ(manager->findEndpointByFd(102), nullptr);
    EXPECT_EQ(manager->findEndpointByFd(101)->label, 5U);
    // The entry of the label remains.
    EXPECT_EQ(manager->findEndpointByLabel(6), second);
}

TEST_F(EndpointManagerTest, FindsNoDeletedEndpointWhileAHolderKeepsIt) {
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

TEST_F(EndpointManagerTest, ReleasesADeletedEndpointOutsideTheLock) {
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

TEST_F(EndpointManagerTest, CountsRemovals) {
    std::uint64_t before = manager->removals();
    const auto removes = [&](const std::function<void(EndpointPtr)>& remove) {
        declare(5);
        const EndpointPtr endpoint = create(5);
        before = manager->removals();
        remove(endpoint);
        return manager->removals() > before;
    };
    EXPECT_TRUE(removes([this](const EndpointPtr&) { manager->deleteEndpoint(5); }));
    EXPECT_TRUE(removes([this](const EndpointPtr& it) { manager->deleteEndpoint(*it); }));
    EXPECT_TRUE(removes([this](const EndpointPtr& it) { manager->undoCreation(*it); }));
    EXPECT_TRUE(removes([this](const EndpointPtr&) { manager->removeLabel(5); }));
    EXPECT_TRUE(removes([this](const EndpointPtr&) { declare(5); }));
    EXPECT_FALSE(removes([this](const EndpointPtr&) {
        manager->expireIdle(true, true, [](const VeskEndpointDescriptor&) {});
    }));
    EXPECT_TRUE(removes([this](const EndpointPtr& it) {
        it->idle = true;
        manager->expireIdle(true, true, [](const VeskEndpointDescriptor&) {});
    }));
    EXPECT_FALSE(removes([this](const EndpointPtr& it) {
        declare(6);
        create(6);
        manager->findEndpointByFd(it->rdsockfd);
    }));
}

TEST_F(EndpointManagerTest, ListsEndpointsInTheOrderOfTheirLabels) {
    EXPECT_THAT(labels(), IsEmpty());
    for (const std::uint32_t label : {7U, 5U, 0xffffffffU, 6U}) {
        declare(label);
        create(label);
    }
    EXPECT_THAT(labels(), ElementsAre(5, 6, 7, 0xffffffff));
}

TEST_F(EndpointManagerTest, RunsAnActionWhileNoEndpointIsCreated) {
    bool ran = false;
    manager->withoutCreation([&ran] { ran = true; });
    EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace vesk
