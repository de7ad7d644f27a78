#include "service/log_limit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::IsEmpty;
using testing::SizeIs;

const std::string badHmac = "downstreamPacketReceivedFailed HMAC Check!";

/// Tests a limit with a clock that the test moves.
class LogLimitTest : public testing::Test {
 protected:
    bool pass(const std::string& text) {
        const LogLimit::Verdict verdict = limit.take({LogLevel::info, text}, now);
        passed += verdict.pass ? 1 : 0;
        toldBefore = verdict.before ? describe(*verdict.before) : "";
        leftOut += verdict.before ? verdict.before->lines : 0;
        return verdict.pass;
    }

    /// How many of the lines are passed on.
    int passes(const std::string& text, int lines) {
        int count = 0;
        for (int i = 0; i < lines; ++i) {
            count += pass(text) ? 1 : 0;
        }
        return count;
    }

    static std::string lineOfLabel(int label) {
        return "Created upstream endpoint: label " + std::to_string(label) + " sockfds 1 2";
    }

    LogLimit limit;
    LogLimit::Clock::time_point now;
    std::uint64_t passed = 0;
    std::uint64_t leftOut = 0;
    std::string toldBefore;
};

TEST_F(LogLimitTest, PassesTwentyLinesAndThenOnePerSecond) {
    EXPECT_EQ(passes(badHmac, 1000), 20);
    now += milliseconds(999);
    EXPECT_FALSE(pass(badHmac));
    now += milliseconds(1);
    EXPECT_TRUE(pass(badHmac));
    EXPECT_EQ(toldBefore, "981 more lines like this were left out: " + badHmac);
    EXPECT_FALSE(pass(badHmac));
    now += seconds(1);
    EXPECT_TRUE(pass(badHmac));
    EXPECT_EQ(toldBefore, "1 more line like this was left out: " + badHmac);
    now += seconds(1000);
    EXPECT_EQ(passes(badHmac, 1000), 20);
}

TEST_F(LogLimitTest, TreatsLinesThatDifferInNumbersAsOneKind) {
    int count = 0;
    for (int i = 0; i < 100; ++i) {
        count += pass("from 127.0.0.1:" + std::to_string(i)) ? 1 : 0;
    }
    EXPECT_EQ(count, 20);
    EXPECT_TRUE(pass("to 127.0.0.1:1"));
}

TEST_F(LogLimitTest, LimitsEachLabelSeparately) {
    for (int label = 1; label <= 5; ++label) {
        EXPECT_EQ(passes(lineOfLabel(label), 100), 20) << label;
    }
}

TEST_F(LogLimitTest, PassesTwoHundredLinesWithLabelsPerSecond) {
    int count = 0;
    for (int label = 1; label <= 1000; ++label) {
        count += pass(lineOfLabel(label)) ? 1 : 0;
    }
    EXPECT_EQ(count, 200);
    EXPECT_TRUE(pass(badHmac));
    now += seconds(1);
    const std::vector<LeftOut> due = limit.dueCounts(now);
    ASSERT_THAT(due, SizeIs(1));
    EXPECT_EQ(describe(due[0]), "800 more lines that name a label were left out");
    for (int label = 2001; label <= 3000; ++label) {
        count += pass(lineOfLabel(label)) ? 1 : 0;
    }
    EXPECT_EQ(count, 400);
}

TEST_F(LogLimitTest, ANoisyLabelDoesNotLimitOthers) {
    passes(lineOfLabel(1), 10000);
    EXPECT_TRUE(pass(lineOfLabel(2)));
}

TEST_F(LogLimitTest, ReturnsTheCountOfASilentKind) {
    EXPECT_FALSE(limit.dueAt());
    passes(badHmac, 50);
    ASSERT_TRUE(limit.dueAt());
    EXPECT_EQ(*limit.dueAt(), now + seconds(1));
    EXPECT_THAT(limit.dueCounts(now + milliseconds(999)), IsEmpty());
    now += seconds(1);
    const std::vector<LeftOut> due = limit.dueCounts(now);
    ASSERT_THAT(due, SizeIs(1));
    EXPECT_EQ(describe(due[0]), "30 more lines like this were left out: " + badHmac);
    EXPECT_EQ(due[0].level, LogLevel::info);
    EXPECT_FALSE(limit.dueAt());
    EXPECT_THAT(limit.allCounts(), IsEmpty());
}

TEST_F(LogLimitTest, ReturnsAllCountsAtTheEnd) {
    passes(badHmac, 50);
    ASSERT_THAT(limit.allCounts(), SizeIs(1));
    EXPECT_THAT(limit.allCounts(), IsEmpty());
    EXPECT_FALSE(limit.dueAt());
}

TEST_F(LogLimitTest, ShowsTheBeginningOfALongLine) {
    passes(std::string(100000, 'y'), 21);
    const std::vector<LeftOut> all = limit.allCounts();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_THAT(all[0].like, SizeIs(200));
}

TEST_F(LogLimitTest, RemembersABoundedNumberOfKinds) {
    const auto word = [](int number) {
        std::string text = "kind ";
        for (; number > 0; number /= 10) {
            text += static_cast<char>('g' + number % 10);
        }
        return text;
    };
    for (int i = 0; i < 100000; ++i) {
        pass(word(i));
    }
    EXPECT_EQ(limit.kinds(), LogLimit::mostKinds);
    EXPECT_EQ(passed, LogLimit::mostKinds + 20);
    now += seconds(20);
    EXPECT_TRUE(pass("a new kind"));
    EXPECT_EQ(limit.kinds(), 1U);
}

TEST_F(LogLimitTest, CountsEveryLine) {
    constexpr unsigned lotSeed = 20240501;
    std::mt19937 random(lotSeed);
    std::uint64_t lines = 0;
    for (int step = 0; step < 100000; ++step) {
        const auto number = static_cast<int>(random() % 400);
        pass(number < 100 ? badHmac : lineOfLabel(number));
        ++lines;
        now += std::chrono::microseconds(random() % (step % 1000 < 10 ? 300000 : 3000));
        if (limit.dueAt() && *limit.dueAt() <= now) {
            for (const LeftOut& count : limit.dueCounts(now)) {
                leftOut += count.lines;
            }
            ASSERT_TRUE(!limit.dueAt() || *limit.dueAt() > now);
        }
    }
    for (const LeftOut& count : limit.allCounts()) {
        leftOut += count.lines;
    }
    EXPECT_GT(leftOut, 0U) << "seed " << lotSeed;
    EXPECT_EQ(passed + leftOut, lines) << "seed " << lotSeed;
}

}  // namespace
}  // namespace vesk::controller
