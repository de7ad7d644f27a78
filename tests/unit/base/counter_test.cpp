#include "base/counter.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

namespace vesk {
namespace {

TEST(CounterTest, StartsAtZeroAndAddsUp) {
    Counter counter;
    EXPECT_EQ(counter.value(), 0U);
    counter.increment();
    counter.add(41);
    counter.add(0);
    EXPECT_EQ(counter.value(), 42U);
}

TEST(CounterTest, IsSixtyFourBitsWide) {
    Counter counter;
    counter.add(std::numeric_limits<std::uint32_t>::max());
    counter.increment();
    EXPECT_EQ(counter.value(), std::uint64_t{1} << 32);
}

TEST(CounterTest, CanBeReadWhileAnotherThreadCounts) {
    constexpr std::uint64_t total = 100000;
    Counter counter;
    std::thread counting([&counter] {
        for (std::uint64_t i = 0; i < total; ++i) {
            counter.increment();
        }
    });
    std::uint64_t last = 0;
    while (last < total) {
        const std::uint64_t now = counter.value();
        ASSERT_GE(now, last);
        last = now;
    }
    counting.join();
    EXPECT_EQ(counter.value(), total);
}

TEST(SharedCounterTest, LosesNothingWhenSeveralThreadsCount) {
    constexpr std::uint64_t each = 50000;
    SharedCounter counter;
    const auto count = [&counter] {
        for (std::uint64_t i = 0; i < each; ++i) {
            counter.increment();
        }
    };
    std::thread first(count);
    std::thread second(count);
    count();
    first.join();
    second.join();
    EXPECT_EQ(counter.value(), 3 * each);
}

}  // namespace
}  // namespace vesk
