#include "child/fence_ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Command setOf(const std::string& flow) {
    return {"set", {}, "flow " + flow, 1};
}

LogLine complaintAbout(const std::string& word) {
    return {LogLevel::error, "Unrecognised command '" + word + "'"};
}

TEST(FenceLedger, ReturnsADifferentFenceForEachCommand) {
    FenceLedger ledger;
    EXPECT_EQ(ledger.expect(setOf("a")), "fence-1");
    EXPECT_EQ(ledger.expect(setOf("b")), "fence-2");
    EXPECT_EQ(ledger.pending(), 2U);
    EXPECT_EQ(ledger.current()->subject, "flow a");
}

TEST(FenceLedger, EndsCommandsInOrder) {
    FenceLedger ledger;
    const std::string first = ledger.expect(setOf("a"));
    const std::string second = ledger.expect(setOf("b"));
    EXPECT_EQ(ledger.read(complaintAbout(first)).outcome->command.subject, "flow a");
    EXPECT_EQ(ledger.current()->subject, "flow b");
    const FenceReading last = ledger.read(complaintAbout(second));
    EXPECT_TRUE(last.ours);
    EXPECT_EQ(last.outcome->command.subject, "flow b");
    EXPECT_EQ(ledger.pending(), 0U);
    EXPECT_EQ(ledger.current(), nullptr);
}

TEST(FenceLedger, ClaimsOnlyTheEmptyLineAfterAFence) {
    FenceLedger ledger;
    const LogLine empty{LogLevel::none, ""};
    const std::string fence = ledger.expect(setOf("a"));
    EXPECT_FALSE(ledger.read(empty).ours);
    EXPECT_TRUE(ledger.read(complaintAbout(fence)).ours);
    EXPECT_TRUE(ledger.read(empty).ours);
    EXPECT_FALSE(ledger.read(empty).ours);
}

TEST(FenceLedger, ClaimsTheEchoOfItsFence) {
    FenceLedger ledger;
    const std::string fence = ledger.expect(setOf("a"));
    EXPECT_TRUE(ledger.read({LogLevel::debug, "Got message: " + fence}).ours);
    EXPECT_FALSE(ledger.read({LogLevel::debug, "Got message: set label 1"}).ours);
}

TEST(FenceLedger, AssignsErrorsToTheirCommand) {
    FenceLedger ledger;
    const std::string first = ledger.expect(setOf("a"));
    const std::string second = ledger.expect(setOf("b"));
    ledger.read(complaintAbout(first));
    EXPECT_FALSE(ledger.read({LogLevel::error, "Vesk_validateHmacKeyString: bad key"}).ours);
    ledger.read({LogLevel::error, "setLabelAttrs: bad command for label 0"});
    const FenceReading reading = ledger.read(complaintAbout(second));
    EXPECT_THAT(reading.outcome->errors, ElementsAre("Vesk_validateHmacKeyString: bad key",
                                                     "setLabelAttrs: bad command for label 0"));
    EXPECT_THAT(reading.outcome->warnings, IsEmpty());
}

TEST(FenceLedger, SeparatesWarningsFromErrors) {
    FenceLedger ledger;
    const std::string fence = ledger.expect(setOf("a"));
    ledger.read({LogLevel::warn, "setLabelAttrs: Aux. flow label prefix added more than once"});
    const FenceReading reading = ledger.read(complaintAbout(fence));
    EXPECT_THAT(reading.outcome->errors, IsEmpty());
    EXPECT_THAT(reading.outcome->warnings, testing::SizeIs(1));
}

TEST(FenceLedger, IgnoresLinesOfOtherThreads) {
    FenceLedger ledger;
    const std::string fence = ledger.expect(setOf("a"));
    ledger.read({LogLevel::error, "DOWN_TO_UP_SEND: network error on upstream endpoint"});
    ledger.read({LogLevel::error, "Failed bind syscall for upstream endpoint socket: in use"});
    ledger.read({LogLevel::none, "downstreamPacketReceivedFailed HMAC Check!"});
    ledger.read({LogLevel::info, "setLabelAttrs: says an info line"});
    EXPECT_THAT(ledger.read(complaintAbout(fence)).outcome->errors, IsEmpty());
}

TEST(FenceLedger, RecognisesErrorsOfTheListeners) {
    for (const char* const word : {"start", "start_lateral"}) {
        FenceLedger ledger;
        const std::string fence = ledger.expect({word, {}, "a listener"});
        ledger.read({LogLevel::error, "Failed bind syscall for endpoint socket: in use"});
        EXPECT_THAT(ledger.read(complaintAbout(fence)).outcome->errors, testing::SizeIs(1));
    }
}

TEST(FenceLedger, DoesNotClaimOtherUnknownCommands) {
    FenceLedger ledger;
    EXPECT_FALSE(ledger.read(complaintAbout("fence-1")).ours);
    ledger.expect(setOf("a"));
    EXPECT_FALSE(ledger.read(complaintAbout("fence-2")).ours);
    EXPECT_FALSE(ledger.read(complaintAbout("Stop")).ours);
    EXPECT_EQ(ledger.pending(), 1U);
}

TEST(FenceLedger, ClaimsTheFencesOfAnEarlierOne) {
    const LogLine empty{LogLevel::none, ""};
    FenceLedger ledger(100);
    EXPECT_TRUE(ledger.read(complaintAbout("fence-99")).ours);
    EXPECT_TRUE(ledger.read(empty).ours);
    EXPECT_FALSE(ledger.read(empty).ours);
    EXPECT_EQ(ledger.expect(setOf("a")), "fence-100");
    EXPECT_TRUE(ledger.read({LogLevel::debug, "Got message: fence-7"}).ours);
    EXPECT_TRUE(ledger.read(complaintAbout(std::string(FenceLedger::unawaited))).ours);
    EXPECT_FALSE(ledger.read(complaintAbout("fence-101")).ours);
    EXPECT_FALSE(ledger.read(complaintAbout("fence-")).ours);
    EXPECT_FALSE(ledger.read(complaintAbout("other-1")).ours);
    EXPECT_EQ(ledger.pending(), 1U);
    EXPECT_EQ(ledger.read(complaintAbout("fence-100")).outcome->command.subject, "flow a");
}

}  // namespace
}  // namespace vesk::controller
