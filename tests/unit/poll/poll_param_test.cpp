#include "poll/poll_param.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "poll/receive_worker.h"
#include "support/child_process.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

TEST(PollParamTest, StartsWithCountersAtZero) {
    PollParam worker([](int, bool&, std::uint32_t) { return 0; });
    EXPECT_EQ(worker.workerParameter, 0U);
    EXPECT_EQ(worker.pause, 0U);
    EXPECT_EQ(worker.receivedTotal.value(), 0U);
    EXPECT_EQ(worker.wakeCount.value(), 0U);
    EXPECT_EQ(worker.queueDepthSum.load(), 0U);
    EXPECT_FALSE(worker.thread.started());
}

TEST(PollThreadParamTest, StartsWithCountersAtZero) {
    const PollParams workers;
    const PollThreadParam param(7, workers, workers);
    EXPECT_EQ(param.msgchanfd, 7);
    EXPECT_EQ(param.readStart, 0U);
    EXPECT_EQ(param.writeStart, 0U);
    EXPECT_EQ(param.RdReadyNr.value(), 0U);
    EXPECT_EQ(param.WrReadyNr.value(), 0U);
    EXPECT_EQ(param.ErrorNr.value(), 0U);
    EXPECT_EQ(param.ActiveEvtNr.load(), 0);
}

TEST(StopThreadsTest, EndsEveryThreadAndReleasesEveryRecord) {
    PollParams threads;
    std::vector<std::weak_ptr<PollParam>> watched;
    for (int i = 0; i < 3; ++i) {
        auto worker = std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; });
        ASSERT_EQ(worker->thread.start([param = worker.get()] { runReceiveWorker(*param); }), 0);
        watched.push_back(worker);
        threads.push_back(std::move(worker));
    }
    EXPECT_EQ(printedBy([&threads] { EXPECT_TRUE(stopThreads(threads)); }), "");
    EXPECT_TRUE(threads.empty());
    for (const auto& worker : watched) {
        EXPECT_TRUE(worker.expired());
    }
}

TEST(StopThreadsTest, EndsThreadsInTheOrderOfTheList) {
    // Atomics instead of a list with a lock: the thread sanitizer does not see locks that are
    // taken while a cancelled wait for a semaphore unwinds.
    std::atomic<int> ended{0};
    std::array<std::atomic<int>, 3> places{};
    struct Witness {
        std::atomic<int>& count;
        std::atomic<int>& place;
        ~Witness() { place = ++count; }
    };
    PollParams threads;
    std::vector<ThreadMark> marks(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        auto worker = std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; });
        ASSERT_EQ(worker->thread.start(
                      [&ended, &place = places[i], &mark = marks[i], param = worker.get()] {
                          const Witness witness{ended, place};
                          mark.set();
                          runReceiveWorker(*param);
                      }),
                  0);
        ASSERT_TRUE(marks[i].eventuallyBlocks());
        threads.push_back(std::move(worker));
    }
    stopThreads(threads);
    EXPECT_EQ(places[0], 1);
    EXPECT_EQ(places[1], 2);
    EXPECT_EQ(places[2], 3);
}

TEST(StopThreadsTest, ReportsThatAThreadWasLeftRunning) {
    checkInChild([] {
        PollParams threads;
        for (int i = 0; i < 2; ++i) {
            auto worker = std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; });
            ThreadMark mark;
            EXPECT_EQ(worker->thread.start([worker, &mark] {
                mark.set();
                runReceiveWorker(*worker);
            }),
                      0);
            EXPECT_TRUE(mark.eventuallyBlocks());
            threads.push_back(std::move(worker));
        }
        const std::weak_ptr<PollParam> watched = threads.front();
        forbidCancelling();
        EXPECT_FALSE(stopThreads(threads));
        EXPECT_TRUE(threads.empty());
        EXPECT_FALSE(watched.expired());
    });
}

TEST(StopThreadsTest, AcceptsThreadsThatNeverStarted) {
    PollParams threads{std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; })};
    EXPECT_EQ(printedBy([&threads] { EXPECT_TRUE(stopThreads(threads)); }), "");
    EXPECT_TRUE(threads.empty());
    stopThreads(threads);
}

}  // namespace
}  // namespace vesk
