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
    static constexpr const char* overtaken =
        "a worker receives from a socket while another holds unsent replies of it";

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

TEST_F(ArmingModel, AWorkerWithALeftOverNumberLosesNoWakeUp) {
    expectNothingWrong({.endpoints = 1, .arrivals = 3, .leftOver = {1, 0}});
    expectNothingWrong({.endpoints = 1, .arrivals = 2, .failures = 1, .leftOver = {1, 0}});
}

TEST_F(ArmingModel, TwoWorkersWithLeftOverNumbersLoseNoWakeUp) {
    expectNothingWrong({.endpoints = 1, .arrivals = 3, .removals = 0, .leftOver = {1, 1}});
}

TEST_F(ArmingModel, ASocketIsArmedOnceUnlessANumberIsLeftOver) {
    expectNothingWrong({.endpoints = 1, .arrivals = 3, .failures = 1, .armedOnce = true});
    expectComplaint("a socket armed twice",
                    {.endpoints = 1, .leftOver = {1, 0}, .armedOnce = true});
}

// The error that each rule prevents.

TEST_F(ArmingModel, WithoutAClaimAWorkerOvertakesAnother) {
    rules.claimsSocket = false;
    expectComplaint(overtaken, {.endpoints = 1, .leftOver = {1, 0}});
}

TEST_F(ArmingModel, AClaimThatEndsWhenTheSocketIsDrainedLetsAWorkerOvertake) {
    rules.claimsUntilSent = false;
    expectComplaint(overtaken, {.endpoints = 1, .leftOver = {1, 0}});
}

TEST_F(ArmingModel, ArmingBeforeSendingLetsAWorkerOvertake) {
    rules.sendsBeforeArming = false;
    expectComplaint(overtaken, {.endpoints = 1});
}

TEST_F(ArmingModel, ArmingBeforeEndingTheClaimLosesAWakeUp) {
    rules.endsClaimBeforeArming = false;
    expectComplaint(lost, {.endpoints = 1});
}

TEST_F(ArmingModel, TakingTheArmingAfterTheClaimHasEndedLosesAWakeUp) {
    rules.takesArmingBeforeEndingClaim = false;
    expectComplaint(lost, {.endpoints = 1, .leftOver = {1, 0}});
}

TEST_F(ArmingModel, EndingAClaimTwiceLetsAWorkerOvertake) {
    rules.armsOnce = false;
    expectComplaint(overtaken, {.endpoints = 1, .arrivals = 3, .leftOver = {1, 1}});
}

TEST_F(ArmingModel, SendingForAnEndpointThatIsNotHeldUsesItAfterItsRelease) {
    rules.holdsUntilSent = false;
    expectComplaint("an endpoint used after it was released", {.endpoints = 1});
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

}  // namespace
}  // namespace vesk::model
