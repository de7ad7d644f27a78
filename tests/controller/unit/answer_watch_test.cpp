#include "child/answer_watch.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Verdict = AnswerWatch::Verdict;

constexpr seconds patience{10};
const AnswerWatch::Clock::time_point start{seconds(1000)};

TEST(AnswerWatch, ReportsHungAfterSilenceWithAnOutstandingFence) {
    AnswerWatch watch(start);
    EXPECT_EQ(watch.due(patience), start + patience);
    EXPECT_EQ(watch.judge(start + patience - milliseconds(1), true, patience), Verdict::waiting);
    EXPECT_EQ(watch.judge(start + patience, true, patience), Verdict::hung);
}

TEST(AnswerWatch, RestartsTheTimeWithEachLine) {
    AnswerWatch watch(start);
    watch.note(start + seconds(9));
    EXPECT_EQ(watch.judge(start + seconds(18), true, patience), Verdict::waiting);
    EXPECT_EQ(watch.judge(start + seconds(19), true, patience), Verdict::hung);
}

TEST(AnswerWatch, AsksIfNoFenceIsOutstanding) {
    AnswerWatch watch(start);
    EXPECT_EQ(watch.judge(start + seconds(9), false, patience), Verdict::waiting);
    EXPECT_EQ(watch.judge(start + seconds(100), false, patience), Verdict::ask);
}

TEST(AnswerWatch, RestartsTheTimeIfTheControllerItselfWasStopped) {
    AnswerWatch watch(start);
    EXPECT_EQ(watch.judge(start + seconds(60), true, patience), Verdict::waiting);
    EXPECT_EQ(watch.judge(start + seconds(69), true, patience), Verdict::waiting);
    EXPECT_EQ(watch.judge(start + seconds(70), true, patience), Verdict::hung);
}

}  // namespace
}  // namespace vesk::controller
