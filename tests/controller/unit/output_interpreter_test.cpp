#include "child/output_interpreter.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

class OutputInterpreterTest : public testing::Test {
 protected:
    /// The text for the log, or "" if the line is not for the log.
    std::string logged(std::string_view line) {
        const OutputEvent event = interpreter.take(line);
        const auto* const found = std::get_if<LogLine>(&event);
        return found == nullptr ? "" : found->text;
    }

    FenceLedger ledger;
    OutputInterpreter interpreter{ledger};
};

TEST_F(OutputInterpreterTest, PassesLogLinesOn) {
    EXPECT_EQ(logged("info Forwarder listener stopped"), "Forwarder listener stopped");
    EXPECT_EQ(logged("downstreamPacketReceivedFailed HMAC Check!"),
              "downstreamPacketReceivedFailed HMAC Check!");
    EXPECT_EQ(logged(""), "");
}

TEST_F(OutputInterpreterTest, MasksTheKeysOfRepeatedCommands) {
    EXPECT_EQ(logged("debug Got message: set label 1 up_in_key 00112233"),
              "Got message: set label 1 up_in_key <key of 4 bytes>");
}

TEST_F(OutputInterpreterTest, KeepsItsOwnCommandsOutOfTheLog) {
    ledger.expect({"stats", {}, "the report"});
    EXPECT_EQ(logged("debug Got message: stats"), "");
    EXPECT_EQ(logged("debug Got message: fence-1"), "");
    const OutputEvent event = interpreter.take("error Unrecognised command 'fence-1'");
    ASSERT_TRUE(std::holds_alternative<Outcome>(event));
    EXPECT_EQ(std::get<Outcome>(event).command.word, "stats");
    EXPECT_EQ(logged(""), "");
}

TEST_F(OutputInterpreterTest, KeepsReportsOutOfTheLog) {
    const char* const lines[] = {"info ",
                                 "Poll stats:",
                                 "ActiveEvtNr:0 RdReadyNr:0 WrReadyNr:0 ErrorNr:0",
                                 "",
                                 "info Upstream Stats:",
                                 "",
                                 "info RcvThrStats: WakeNr:0,ReadyFdNr:0,DgNr:0 ",
                                 "",
                                 "info SndThrStats ",
                                 "",
                                 "info EptNr:0,RxDg:0,TxDg:0",
                                 "",
                                 "info Downstream Stats:",
                                 "RxDg:7,TxDg:0,RxDgError:0,TxDgDropped:0",
                                 "",
                                 "info Lateral Stats:"};
    for (const char* const line : lines) {
        EXPECT_TRUE(std::holds_alternative<std::monostate>(interpreter.take(line))) << line;
        EXPECT_EQ(logged("info logged in between"), "logged in between");
    }
    const OutputEvent last = interpreter.take("");
    ASSERT_TRUE(std::holds_alternative<Report>(last));
    EXPECT_EQ(std::get<Report>(last).downstream->received, 7U);
}

}  // namespace
}  // namespace vesk::controller
