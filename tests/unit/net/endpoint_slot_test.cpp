#include "net/endpoint_slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include "support/thread_state.h"

namespace vesk {
namespace {

EndpointPtr endpointWith(EndpointDeleter deleter, std::uint32_t label = 5) {
    return std::make_unique<VeskEndpointDescriptor>(label, 7, 8, FlowDesc(), std::move(deleter));
}

EndpointPtr anyEndpoint(std::uint32_t label = 5) {
    return endpointWith([](int, int) {}, label);
}

TEST(LentEndpointTest, IsEmptyWithoutAnEndpoint) {
    LentEndpoint none;
    LentEndpoint fromNone(nullptr);
    for (LentEndpoint* const empty : {&none, &fromNone}) {
        EXPECT_FALSE(*empty);
        EXPECT_EQ(empty->lease(), nullptr);
        EXPECT_EQ(empty->takeBack(), nullptr);
    }
}

TEST(LentEndpointTest, LendsTheEndpointItself) {
    const EndpointPtr endpoint = anyEndpoint();
    const LentEndpoint lent(endpoint);
    EXPECT_TRUE(lent);
    EXPECT_EQ(lent.lease(), endpoint);
}

TEST(LentEndpointTest, IsTakenBackAtOnceWithoutLeases) {
    std::weak_ptr<VeskEndpointDescriptor> watched;
    {
        EndpointPtr endpoint = anyEndpoint();
        watched = endpoint;
        LentEndpoint lent(std::move(endpoint));
        const EndpointPtr taken = lent.takeBack();
        ASSERT_NE(taken, nullptr);
        EXPECT_EQ(taken.use_count(), 1);
        EXPECT_FALSE(lent);
        EXPECT_EQ(lent.takeBack(), nullptr);
    }
    EXPECT_TRUE(watched.expired());
}

TEST(LentEndpointTest, SleepsUntilTheLastLeaseEnds) {
    LentEndpoint lent(anyEndpoint());
    EndpointPtr first = lent.lease();
    EndpointPtr second = first;
    ThreadMark owner;
    std::atomic<bool> returned{false};
    long references = 0;
    std::thread taking([&] {
        owner.set();
        references = lent.takeBack().use_count();
        returned = true;
    });
    ASSERT_TRUE(owner.eventuallyBlocks());
    first.reset();
    ASSERT_TRUE(owner.eventuallyBlocks());
    EXPECT_FALSE(returned);
    second.reset();
    taking.join();
    EXPECT_EQ(references, 1);
}

TEST(LentEndpointTest, IsDestroyedByItsOwnerAndNotByTheLastLease) {
    std::thread::id destroyedBy;
    LentEndpoint lent(
        endpointWith([&destroyedBy](int, int) { destroyedBy = std::this_thread::get_id(); }));
    std::thread worker([lease = lent.lease()]() mutable { lease.reset(); });
    lent.takeBack();
    EXPECT_EQ(destroyedBy, std::this_thread::get_id());
    worker.join();
}

TEST(LentEndpointTest, KeepsTheEndpointForALeaseThatOutlivesIt) {
    bool destroyed = false;
    EndpointPtr lease;
    {
        const LentEndpoint lent(endpointWith([&destroyed](int, int) { destroyed = true; }));
        lease = lent.lease();
    }
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(lease->label, 5U);
    lease.reset();
    EXPECT_TRUE(destroyed);
}

TEST(EndpointSlotTest, LendsTheEndpointPublishedLast) {
    EndpointSlot slot;
    EXPECT_EQ(slot.load(), nullptr);
    const LentEndpoint first(anyEndpoint());
    const LentEndpoint second(anyEndpoint());
    slot.publish(first);
    EXPECT_EQ(slot.load(), first.lease());
    slot.publish(second);
    EXPECT_EQ(slot.load(), second.lease());
    slot.withdraw();
    EXPECT_EQ(slot.load(), nullptr);
}

TEST(EndpointSlotTest, HoldsItsOwnLease) {
    EndpointSlot slot;
    LentEndpoint lent(anyEndpoint());
    slot.publish(lent);
    ThreadMark owner;
    std::thread taking([&] {
        owner.set();
        lent.takeBack();
    });
    EXPECT_TRUE(owner.eventuallyBlocks());
    slot.withdraw();
    taking.join();
}

TEST(EndpointSlotTest, ChangesItsGenerationWithEveryReplacement) {
    EndpointSlot slot;
    const LentEndpoint lent(anyEndpoint());
    EXPECT_EQ(slot.generation(), 0U);
    std::uint64_t before = slot.generation();
    const auto changed = [&] { return std::exchange(before, slot.generation()) != before; };
    EXPECT_FALSE(changed());
    slot.publish(lent);
    EXPECT_TRUE(changed());
    slot.publish(lent);
    EXPECT_TRUE(changed());
    slot.withdraw();
    EXPECT_TRUE(changed());
    static_cast<void>(slot.load());
    EXPECT_FALSE(changed());
}

TEST(EndpointSlotTest, CanBeReplacedWhileOtherThreadsReadIt) {
    EndpointSlot slot;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            const EndpointPtr endpoint = slot.load();
            EXPECT_TRUE(!endpoint || endpoint->label == 5);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        LentEndpoint lent(anyEndpoint());
        slot.publish(lent);
        slot.withdraw();
        EXPECT_NE(lent.takeBack(), nullptr);
    }
    done = true;
    reader.join();
}

/// Keeps its lease while the generation is unchanged.
TEST(EndpointSlotTest, GenerationShowsThatALeaseIsOutdated) {
    EndpointSlot slot;
    std::atomic<std::uint32_t> published{0};
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::uint64_t seen = 0;
        EndpointPtr lease;
        while (!done) {
            const std::uint32_t before = published;
            if (const std::uint64_t now = slot.generation(); now != seen) {
                lease = slot.load();
                seen = now;
            }
            EXPECT_TRUE(!lease || lease->label >= before);
        }
    });
    for (std::uint32_t label = 1; label <= 1000; ++label) {
        LentEndpoint lent(anyEndpoint(label));
        slot.publish(lent);
        published = label;
        slot.withdraw();
        EXPECT_NE(lent.takeBack(), nullptr);
    }
    done = true;
    reader.join();
}

}  // namespace
}  // namespace vesk
