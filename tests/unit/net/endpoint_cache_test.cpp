#include "net/endpoint_cache.h"

#include <gtest/gtest.h>

#include <memory>

#include "support/forwarder.h"

namespace vesk {
namespace {

class EndpointCacheTest : public ForwarderTest {
 protected:
    void SetUp() override {
        ForwarderTest::SetUp();
        kept = std::make_unique<EndpointCache>(manager());
    }
    void TearDown() override {
        kept.reset();
        ForwarderTest::TearDown();
    }

    EndpointPtr newEndpoint(std::uint32_t label) {
        declare("label " + std::to_string(label) + " up_ip 127.0.0.1 up_port 5000");
        EndpointPtr endpoint = createEndpoint(label);
        EXPECT_NE(endpoint, nullptr);
        return endpoint;
    }
    /// Whether only the manager and the test hold the endpoint.
    static bool isLetGo(const EndpointPtr& endpoint) { return endpoint.use_count() == 4; }

    std::unique_ptr<EndpointCache> kept;
};

TEST_F(EndpointCacheTest, FindsByDescriptorAndByLabel) {
    const EndpointPtr endpoint = newEndpoint(5);
    EXPECT_EQ(kept->findByFd(endpoint->rdsockfd), endpoint);
    EXPECT_EQ(kept->findByFd(endpoint->rdsockfd), endpoint);
    EXPECT_EQ(kept->findByLabel(5), endpoint);
    EXPECT_EQ(kept->findByFd(endpoint->wrsockfd), endpoint);
}

TEST_F(EndpointCacheTest, FindsAnEndpointThatWasMissingBefore) {
    EXPECT_EQ(kept->findByLabel(5), nullptr);
    constexpr int unusedNumber = 5000;
    EXPECT_EQ(kept->findByFd(unusedNumber), nullptr);
    EXPECT_EQ(kept->findByFd(-1), nullptr);
    const EndpointPtr endpoint = newEndpoint(5);
    EXPECT_EQ(kept->findByLabel(5), endpoint);
}

TEST_F(EndpointCacheTest, DistinguishesLabelsThatShareAnEntry) {
    const EndpointPtr first = newEndpoint(5);
    const EndpointPtr second = newEndpoint(5 + 64);
    EXPECT_EQ(kept->findByLabel(5), first);
    EXPECT_EQ(kept->findByLabel(5 + 64), second);
    EXPECT_EQ(kept->findByLabel(5), first);
}

TEST_F(EndpointCacheTest, ReleasesEndedDescriptors) {
    const EndpointPtr first = newEndpoint(5);
    const EndpointPtr second = newEndpoint(6);
    const EndpointPtr third = newEndpoint(7);
    for (const EndpointPtr& endpoint : {first, second, third}) {
        kept->findByFd(endpoint->rdsockfd);
    }
    kept->endFd(first->rdsockfd);
    kept->endFd(first->rdsockfd);
    EXPECT_FALSE(isLetGo(first));
    kept->letGoOfEnded();
    EXPECT_TRUE(isLetGo(first));
    EXPECT_FALSE(isLetGo(second));
    kept->endFd(third->rdsockfd);
    kept->letGoOfEnded();
    EXPECT_TRUE(isLetGo(third));
    kept->letGo();
    EXPECT_TRUE(isLetGo(second));
    EXPECT_EQ(kept->findByFd(first->rdsockfd), first);
}

TEST_F(EndpointCacheTest, ReleasesLabels) {
    const EndpointPtr endpoint = newEndpoint(5);
    kept->findByLabel(5);
    EXPECT_FALSE(isLetGo(endpoint));
    kept->letGoOfEnded();
    EXPECT_TRUE(isLetGo(endpoint));
}

TEST_F(EndpointCacheTest, KeepsALabelsEndpointThatAnotherHasDisplaced) {
    const EndpointPtr first = newEndpoint(5);
    const EndpointPtr second = newEndpoint(5 + 64);
    kept->findByLabel(5);
    kept->findByLabel(5 + 64);
    EXPECT_FALSE(isLetGo(first));
    kept->letGoOfEnded();
    EXPECT_TRUE(isLetGo(first));
    EXPECT_TRUE(isLetGo(second));
}

TEST_F(EndpointCacheTest, NoticesThatAnEndpointIsRemoved) {
    const EndpointPtr endpoint = newEndpoint(5);
    const EndpointPtr other = newEndpoint(6);
    kept->noticeRemovals();
    kept->findByFd(endpoint->rdsockfd);
    kept->findByLabel(5);
    EXPECT_FALSE(kept->noticeRemovals());
    EXPECT_FALSE(isLetGo(endpoint));
    manager().deleteEndpoint(6);
    EXPECT_TRUE(kept->noticeRemovals());
    EXPECT_FALSE(isLetGo(endpoint));
    EXPECT_FALSE(kept->noticeRemovals());
    kept->letGo();
    EXPECT_TRUE(isLetGo(endpoint));
}

TEST_F(EndpointCacheTest, FindsTheSuccessorOfARemovedEndpoint) {
    const EndpointPtr first = newEndpoint(5);
    EXPECT_EQ(kept->findByLabel(5), first);
    manager().deleteEndpoint(5);
    const EndpointPtr second = createEndpoint(5);
    kept->letGo();
    EXPECT_EQ(kept->findByLabel(5), second);
}

TEST_F(EndpointCacheTest, FindsAReusedDescriptorOnlyAtTheSecondAttempt) {
    EndpointPtr first = newEndpoint(5);
    const int fd = first->rdsockfd;
    kept->findByFd(fd);
    manager().deleteEndpoint(5);
    first.reset();
    kept->letGo();
    takePollRequests();
    const EndpointPtr second = createEndpoint(5);
    ASSERT_EQ(second->rdsockfd, fd);
    EXPECT_EQ(kept->findByFd(fd), nullptr);
    EXPECT_EQ(kept->findByFd(fd), second);
}

TEST_F(EndpointCacheTest, FindsTheSameEndpointAgainAfterAnotherWasRemoved) {
    const EndpointPtr endpoint = newEndpoint(5);
    const EndpointPtr other = newEndpoint(6);
    kept->findByFd(endpoint->rdsockfd);
    manager().deleteEndpoint(6);
    kept->letGo();
    EXPECT_EQ(kept->findByFd(endpoint->rdsockfd), endpoint);
}

TEST_F(EndpointCacheTest, FindsANewEndpointUnderAReleasedDescriptor) {
    EndpointPtr first = newEndpoint(5);
    const int fd = first->rdsockfd;
    kept->findByFd(fd);
    kept->endFd(fd);
    kept->letGoOfEnded();
    manager().deleteEndpoint(5);
    first.reset();
    kept->letGo();
    takePollRequests();
    const EndpointPtr second = createEndpoint(5);
    EXPECT_EQ(kept->findByFd(fd), second);
}

TEST_F(EndpointCacheTest, KeepsALeaseUntilTheSlotChanges) {
    EndpointSlot slot;
    CachedSlot lease(slot);
    EXPECT_EQ(lease.get(), nullptr);
    const LentEndpoint first(newEndpoint(5));
    const LentEndpoint second(newEndpoint(6));
    slot.publish(first);
    EXPECT_EQ(lease.get(), first.lease());
    EXPECT_EQ(lease.get(), first.lease());
    slot.publish(second);
    EXPECT_EQ(lease.get(), second.lease());
    slot.withdraw();
    EXPECT_EQ(lease.get(), nullptr);
    slot.publish(first);
    EXPECT_EQ(lease.get(), first.lease());
    lease.letGo();
    EXPECT_EQ(lease.get(), first.lease());
}

}  // namespace
}  // namespace vesk
