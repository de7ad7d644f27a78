#include "arming_model.h"

#include <gtest/gtest.h>

#include <iostream>

#include "arming_search.h"

namespace vesk::model {

std::ostream& operator<<(std::ostream& out, const Verdict& verdict) {
    return out << (verdict.complaint.empty() ? "nothing found" : verdict.complaint) << " in "
               << verdict.states << " states\n"
               << verdict.trace;
}

namespace {

class ArmingModel : public testing::Test {
 protected:
    void expectNothingWrong(const Bounds& bounds) {
        const Verdict verdict = search(rules, bounds);
        EXPECT_TRUE(verdict.complaint.empty()) << verdict;
        RecordProperty("states", static_cast<int>(verdict.states));
        std::cout << verdict.states << " states\n";
    }

    /// Expects the search to detect that a rule is disabled.
    void expectComplaint(const char* complaint, const Bounds& bounds = {}) {
        const Verdict verdict = search(rules, bounds);
        EXPECT_EQ(verdict.complaint, complaint) << verdict;
    }

    static constexpr const char* lost = "a live flow that no thread will read again";

    Rules rules;
};

TEST_F(ArmingModel, OneFlowIsReadAfterEveryDatagram) {
    expectNothingWrong({.endpoints = 1, .arrivals = 4, .removals = 1});
}

TEST_F(ArmingModel, AFlowWithTheDescriptorsOfAnEarlierOneIsRead) {
    expectNothingWrong({.endpoints = 2, .arrivals = 3, .removals = 2});
}

TEST_F(ArmingModel, TwoFlowsAndAReplacementOfTheFirstAreRead) {
    expectNothingWrong({.endpoints = 3, .labels = 2, .arrivals = 2, .removals = 1});
}

TEST_F(ArmingModel, AFailureLosesNoWakeUp) {
    expectNothingWrong({.endpoints = 1, .arrivals = 3, .removals = 1, .failures = 3});
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 1, .failures = 1});
}

TEST_F(ArmingModel, ASenderThatWaitsForRoomBlocksNoThreadForever) {
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 2, .channel = 1});
}

// If a socket may be armed twice, either rule is sufficient: a worker that releases its claim and
// then arms is woken by a datagram that arrived meanwhile; a worker that notices the other worker
// reads it. The tests below disable both.

TEST_F(ArmingModel, ArmingBeforeReleasingTheClaimIsSafeUnlessTheOtherWorkerIsIgnored) {
    rules.givesBackBeforeArming = false;
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 2});
}

TEST_F(ArmingModel, IgnoringTheOtherWorkerIsSafeIfArmingComesLast) {
    rules.heedsOtherWorker = false;
    rules.armsOnce = false;
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 2});
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 1, .failures = 1});
}

// The error that each rule prevents.

TEST_F(ArmingModel, WithoutAClaimTwoWorkersShareABuffer) {
    rules.claimsSocket = false;
    expectComplaint("two workers in one receive buffer");
}

TEST_F(ArmingModel, ArmingBeforeReleasingTheClaimLosesAWakeUpIfTheOtherWorkerIsIgnored) {
    rules.givesBackBeforeArming = false;
    rules.heedsOtherWorker = false;
    expectComplaint(lost, {.endpoints = 1});
}

TEST_F(ArmingModel, ArmingOnceLosesAWakeUpIfTheOtherWorkerIsIgnored) {
    rules.heedsOtherWorker = false;
    expectComplaint(lost, {.endpoints = 2, .arrivals = 2, .removals = 1, .failures = 1});
}

TEST_F(ArmingModel, ArmingADrainedEndpointThatIsNotHeldUsesAClosedDescriptor) {
    rules.holdsDrained = false;
    expectComplaint("a descriptor used after it was closed");
}

TEST_F(ArmingModel, DrainedSocketsAreNeverArmedIfThePassDoesNotArmThem) {
    rules.armsAfterEachPass = false;
    expectComplaint("no thread has a step left, but work is left", {.endpoints = 1});
}

TEST_F(ArmingModel, ARefusedReceiveThatIsNotArmedAgainEndsTheFlow) {
    rules.armsAfterRefusedReceive = false;
    expectComplaint(lost, {.endpoints = 1, .failures = 1});
}

TEST_F(ArmingModel, ClosingInTheDeleterClosesAWatchedSocket) {
    rules.pollThreadCloses = false;
    expectComplaint("a descriptor closed while in the epoll set");
}

TEST_F(ArmingModel, AnUnpreparedEndpointThatIsForgottenIsNeverRead) {
    rules.unprepared = Rules::Unprepared::forget;
    expectComplaint(lost, {.endpoints = 1});
}

TEST_F(ArmingModel, AnUnpreparedEndpointThatIsServedIsArmedBeforeItIsAdded) {
    rules.unprepared = Rules::Unprepared::serve;
    expectComplaint("a record that the epoll set refuses");
}

TEST_F(ArmingModel, AFailedArmingThatIsNotRetriedEndsTheFlow) {
    rules.triesAgain = false;
    expectComplaint(lost, {.endpoints = 1, .failures = 1});
}

TEST_F(ArmingModel, ArmingTwiceIsSafe) {
    rules.armsOnce = false;
    expectNothingWrong({.endpoints = 2, .arrivals = 2, .removals = 2});
}

}  // namespace
}  // namespace vesk::model
