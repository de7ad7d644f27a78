#include "base/sequenced.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>

namespace vesk {
namespace {

/// Not a multiple of a word, and with padding.
struct Odd {
    std::array<std::uint8_t, 13> bytes{};
    std::uint32_t number = 0;
};

TEST(SequencedTest, HoldsItsFirstValue) {
    EXPECT_EQ(Sequenced<int>().load(), 0);
    EXPECT_EQ(Sequenced<int>(7).load(), 7);
}

TEST(SequencedTest, HoldsTheValueStoredLast) {
    Sequenced<Odd> value;
    Odd odd;
    odd.bytes.fill(3);
    odd.number = 9;
    value.store(odd);
    EXPECT_EQ(value.load().bytes, odd.bytes);
    EXPECT_EQ(value.load().number, 9U);
}

TEST(SequencedTest, ReadersSeeNoMixtureOfTwoValues) {
    using Row = std::array<std::uint64_t, 20>;
    Sequenced<Row> value;
    std::atomic<bool> done{false};
    const auto write = [&](std::uint64_t first) {
        for (std::uint64_t i = 0; i < 20000; ++i) {
            Row row;
            row.fill(first + 2 * i);
            value.store(row);
        }
    };
    std::thread reader([&] {
        while (!done) {
            const Row row = value.load();
            for (const std::uint64_t word : row) {
                ASSERT_EQ(word, row.front());
            }
        }
    });
    std::thread other([&] { write(1); });
    write(2);
    other.join();
    done = true;
    reader.join();
}

}  // namespace
}  // namespace vesk
