#include "service/source_move.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <deque>

namespace vesk::controller {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SourceMoveTest : public testing::Test {
 protected:
    /// Notes each step as "release 1", "bind 7001", "steer 1".
    SourceMoveActions actions() {
        return {[this](std::uint32_t label) {
                    steps_.push_back("release " + std::to_string(label));
                    answered_ = false;
                },
                [this] { return answered_; },
                [this](const HostPort& address) {
                    steps_.push_back("bind " + std::to_string(address.port));
                    return bindError_;
                },
                [this](std::uint32_t label) {
                    steps_.push_back("steer " + std::to_string(label));
                    return steerProblem_;
                },
                [this](const std::string& text) { reports_.push_back(text); }};
    }

    static std::deque<SourceFlow> twoFlows() {
        return {{"alice", 1, {"127.0.0.9", 7001}}, {"bob", 2, {"127.0.0.9", 7002}}};
    }

    /// The old forwarder has deleted the flow.
    void answer() {
        answered_ = true;
        move_.goOn(now_);
    }

    std::vector<std::string> steps_;
    std::vector<std::string> reports_;
    bool answered_ = true;
    int bindError_ = 0;
    std::string steerProblem_;
    SourceMove::Clock::time_point now_;
    SourceMove move_{twoFlows(), actions()};
};

TEST_F(SourceMoveTest, MovesOneFlowAfterTheOther) {
    move_.goOn(now_);
    move_.goOn(now_);
    EXPECT_THAT(steps_, ElementsAre("release 1"));
    answer();
    EXPECT_THAT(steps_, ElementsAre("release 1", "bind 7001", "steer 1", "release 2"));
    EXPECT_EQ(move_.left(), 1U);
    EXPECT_FALSE(move_.done());
    answer();
    EXPECT_TRUE(move_.done());
    EXPECT_EQ(move_.flows(), 2U);
    EXPECT_EQ(steps_.back(), "steer 2");
    EXPECT_THAT(reports_, IsEmpty());
}

TEST_F(SourceMoveTest, WaitsForCommandsThatWereSentBefore) {
    answered_ = false;
    move_.goOn(now_);
    EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(SourceMoveTest, WaitsUntilTheAddressIsFree) {
    bindError_ = -EADDRINUSE;
    move_.goOn(now_);
    answer();
    EXPECT_EQ(steps_.back(), "bind 7001");
    EXPECT_EQ(move_.dueAt(), now_ + 1ms);
    bindError_ = 0;
    now_ += 1ms;
    move_.goOn(now_);
    EXPECT_EQ(steps_.back(), "release 2");
    EXPECT_EQ(move_.dueAt(), std::nullopt);
    EXPECT_THAT(reports_, IsEmpty());
}

TEST_F(SourceMoveTest, NamesAFlowWhoseAddressStaysInUseAndGoesOn) {
    bindError_ = -EADDRINUSE;
    move_.goOn(now_);
    answer();
    now_ += 1s;
    move_.goOn(now_);
    EXPECT_THAT(reports_, ElementsAre(AllOf(HasSubstr("flow alice (label 0x1/1): its source "
                                                      "127.0.0.9, port 7001 is in use"))));
    EXPECT_EQ(steps_.back(), "release 2");
    // Each flow has its own second.
    answer();
    EXPECT_EQ(reports_.size(), 1U);
    EXPECT_FALSE(move_.done());
}

TEST_F(SourceMoveTest, DoesNotJudgeAnAddressThatItMayNotUse) {
    bindError_ = -EACCES;
    move_.goOn(now_);
    answer();
    EXPECT_EQ(steps_.back(), "release 2");
    EXPECT_THAT(reports_, IsEmpty());
}

TEST_F(SourceMoveTest, NamesAFlowThatCannotBeSteered) {
    steerProblem_ = "no table";
    move_.goOn(now_);
    answer();
    EXPECT_THAT(reports_, ElementsAre("flow alice (label 0x1/1): its datagrams do not reach the "
                                      "new forwarder: no table"));
    EXPECT_EQ(steps_.back(), "release 2");
}

TEST(OwnSourceTest, IsNoneIfOtherFlowsMayHaveItToo) {
    Flow flow;
    EXPECT_EQ(ownSource(flow), std::nullopt);
    flow.source = HostPort{"127.0.0.9", 7001};
    EXPECT_EQ(ownSource(flow), flow.source);
    flow.multiplex = true;
    EXPECT_EQ(ownSource(flow), std::nullopt);
}

}  // namespace
}  // namespace vesk::controller
