#include "traffic/request_ledger.h"

#include <gtest/gtest.h>

namespace vesk::bench {
namespace {

constexpr std::size_t poolSize = 4;
constexpr std::int64_t lossTimeout = 10;

class RequestLedgerTest : public testing::Test {
 protected:
    RequestLedger ledger{poolSize, lossTimeout, [](std::size_t number) { return number % 2; }};
};

TEST_F(RequestLedgerTest, ContinuesInTheSecondGenerationWhereTheFirstStopped) {
    ledger.measure(true);
    ledger.sent(2, 0);
    EXPECT_EQ(ledger.nextNumber(), 2U);
    ledger.moveOn();
    EXPECT_EQ(ledger.nextNumber(), poolSize + 2);
    ledger.sent(2, 1);
    EXPECT_EQ(ledger.nextNumber(), poolSize);
    EXPECT_EQ(ledger.outstanding(), 4U);
    // Requests of the first generation are answered after the move.
    EXPECT_TRUE(ledger.answered(1, 2));
    EXPECT_TRUE(ledger.answered(poolSize + 3, 2));
    EXPECT_EQ(ledger.counts().sent, 4U);
    EXPECT_EQ(ledger.counts().answered, 2U);
    EXPECT_EQ(ledger.counts().nextSent, 2U);
    EXPECT_EQ(ledger.counts().nextAnswered, 1U);
    ledger.expire(lossTimeout + 1);
    EXPECT_EQ(ledger.counts().lost, 2U);
    EXPECT_EQ(ledger.outstanding(), 0U);
}

TEST_F(RequestLedgerTest, DoesNotTakeAnAnswerOfTheOtherGeneration) {
    ledger.moveOn();
    ledger.sent(1, 0);
    EXPECT_FALSE(ledger.answered(0, 1));
    EXPECT_TRUE(ledger.answered(poolSize, 1));
    EXPECT_FALSE(ledger.answered(poolSize, 1));
}

}  // namespace
}  // namespace vesk::bench
