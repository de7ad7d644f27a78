#include "stats/stats_report.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "support/forwarder.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

EndpointPtr countingEndpoint(std::uint32_t label, std::uint64_t first) {
    auto endpoint = std::make_unique<VeskEndpointDescriptor>(
        label, static_cast<int>(first), static_cast<int>(first) + 1, FlowDesc(), [](int, int) {});
    const auto count = [](SharedCounter& counter, std::uint64_t times) {
        for (std::uint64_t i = 0; i < times; ++i) {
            counter.increment();
        }
    };
    EndpointCounters& counters = endpoint->counters;
    counters.rxDg.add(first);
    count(counters.txDg, first + 1);
    count(counters.rxDgError, first + 2);
    count(counters.txDgDropped, first + 3);
    count(counters.dnTxDg, first + 4);
    count(counters.dnTxDgDropped, first + 5);
    return endpoint;
}

std::shared_ptr<PollParam> countingWorker(std::uint64_t first) {
    auto worker = std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; });
    worker->wakeCount.add(first);
    worker->queueDepthSum = static_cast<std::uint32_t>(first + 1);
    worker->receivedTotal.add(first + 2);
    return worker;
}

/// While it exists, standard output is a full pipe, and every write to it blocks until readOn().
class StalledOutput {
 public:
    StalledOutput() : before_(dup(STDOUT_FILENO)) {
        fcntl(pipe_.write.get(), F_SETFL, O_NONBLOCK);
        const std::array<char, 4096> piece{};
        while (write(pipe_.write.get(), piece.data(), piece.size()) > 0) {
        }
        fcntl(pipe_.write.get(), F_SETFL, 0);
        dup2(pipe_.write.get(), STDOUT_FILENO);
    }
    ~StalledOutput() {
        dup2(before_.get(), STDOUT_FILENO);
        pipe_.write.reset();
        if (reader_.joinable()) {
            reader_.join();
        }
    }
    StalledOutput(const StalledOutput&) = delete;
    StalledOutput& operator=(const StalledOutput&) = delete;

    void readOn() {
        reader_ = std::thread([this] {
            std::array<char, 4096> piece{};
            while (read(pipe_.read.get(), piece.data(), piece.size()) > 0) {
            }
        });
    }

 private:
    Pipe pipe_;
    const UniqueFd before_;
    std::thread reader_;
};

class StatsReportTest : public ForwarderTest {
 protected:
    void TearDown() override {
        context->downstreamEndpoint.withdraw();
        context->lateralEndpoint.withdraw();
        context->pollThread.reset();
        ForwarderTest::TearDown();
    }

    std::string report(const TokenQueue& words = {}) {
        return printedBy([&] { EXPECT_TRUE(reportStatistics(words, context)); });
    }

    void watchWithPollLoop() {
        context->pollThread = std::make_shared<PollThreadParam>(
            context->serverPollSock.get(), context->receiveWorkers, context->sendWorkers);
    }
};

TEST_F(StatsReportTest, ShowsTheHeadingsOfEmptySections) {
    EXPECT_EQ(report(),
              "info \nPoll stats:\n\n"
              "info Upstream Stats:\n\n"
              "info RcvThrStats: \n\n"
              "info SndThrStats \n\n"
              "info EptNr:0,RxDg:0,TxDg:0\n\n"
              "info Downstream Stats:\n\n"
              "info Lateral Stats:\n\n");
}

TEST_F(StatsReportTest, ShowsEveryCounterInItsPlace) {
    watchWithPollLoop();
    context->pollThread->ActiveEvtNr = 3;
    context->pollThread->RdReadyNr.add(4);
    context->pollThread->WrReadyNr.add(5);
    context->pollThread->ErrorNr.add(6);
    ASSERT_EQ(manager().addEndpoint(countingEndpoint(4000000000, 200)), 0);
    ASSERT_EQ(manager().addEndpoint(countingEndpoint(16, 100)), 0);
    context->receiveWorkers = {countingWorker(10), countingWorker(20)};
    context->sendWorkers = {countingWorker(30), countingWorker(40)};
    context->downstreamEndpoint.publish(LentEndpoint(countingEndpoint(0, 50)));
    context->lateralEndpoint.publish(LentEndpoint(countingEndpoint(0, 60)));
    EXPECT_EQ(
        report(),
        "info \nPoll stats:\nActiveEvtNr:3 RdReadyNr:4 WrReadyNr:5 ErrorNr:6\n\n"
        "info Upstream Stats:\n"
        "Label:16,RxDg:100,TxDg:101,RxDgError102,TxDgDropped103,DnTxDg:104,DnTxDgDropped:105\n"
        "Label:4000000000,RxDg:200,TxDg:201,RxDgError202,TxDgDropped203,DnTxDg:204,"
        "DnTxDgDropped:205\n\n"
        "info RcvThrStats: WakeNr:10,ReadyFdNr:11,DgNr:12 WakeNr:20,ReadyFdNr:21,DgNr:22 \n\n"
        "info SndThrStats WakeNr:30,ReadyFdNr:31,DgNr:32 WakeNr:40,ReadyFdNr:41,DgNr:42 \n\n"
        "info EptNr:2,RxDg:34,TxDg:74\n\n"
        "info Downstream Stats:\nRxDg:50,TxDg:51,RxDgError:52,TxDgDropped:53\n\n"
        "info Lateral Stats:\nRxDg:60,TxDg:61,RxDgError:62,TxDgDropped:63,DnTxDg:64,"
        "DnTxDgDropped:65\n\n");
}

TEST_F(StatsReportTest, ResetsNothing) {
    context->downstreamEndpoint.publish(LentEndpoint(countingEndpoint(0, 50)));
    const std::string first = report();
    EXPECT_EQ(report(), first);
}

TEST_F(StatsReportTest, ShowsActiveEventsUnsigned) {
    watchWithPollLoop();
    context->pollThread->ActiveEvtNr = -1;
    EXPECT_THAT(report(),
                testing::StartsWith("info \nPoll stats:\nActiveEvtNr:4294967295 RdReadyNr:0 "));
}

TEST_F(StatsReportTest, IgnoresFurtherWords) {
    EXPECT_EQ(report({"now", "please"}), report());
}

TEST_F(StatsReportTest, IsSilentBelowItsLevel) {
    const AtLogLevel level("warn");
    EXPECT_EQ(report(), "");
}

TEST_F(StatsReportTest, HoldsNoEndpointWhileItIsWritten) {
    std::atomic<int> closed{0};
    const auto countClosed = [&closed](int, int) { ++closed; };
    constexpr int upstreamEndpoints = 3;
    for (int i = 1; i <= upstreamEndpoints; ++i) {
        ASSERT_EQ(manager().addEndpoint(std::make_shared<VeskEndpointDescriptor>(
                      i, 2 * i, 2 * i + 1, FlowDesc(), countClosed)),
                  0);
    }
    context->downstreamEndpoint.publish(
        LentEndpoint(std::make_shared<VeskEndpointDescriptor>(0, 1, 1, FlowDesc(), countClosed)));

    bool blocked = false;
    bool allClosed = false;
    {
        // No expectations in this block: gtest would print a failure to the blocked standard
        // output.
        ThreadMark writing;
        StalledOutput output;
        std::thread reporter([&] {
            writing.set();
            reportStatistics({}, context);
        });
        blocked = writing.eventuallyBlocks();
        for (std::uint32_t label = 1; label <= upstreamEndpoints; ++label) {
            manager().deleteEndpoint(label);
        }
        context->downstreamEndpoint.withdraw();
        allClosed = eventually([&] { return closed == upstreamEndpoints + 1; });
        output.readOn();
        reporter.join();
    }
    EXPECT_TRUE(blocked);
    EXPECT_TRUE(allClosed) << closed;
}

}  // namespace
}  // namespace vesk
