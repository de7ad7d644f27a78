#include "control/command_dispatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "log/log.h"
#include "support/forwarder.h"
#include "support/printed.h"

namespace vesk {
namespace {

class CommandDispatchTest : public ForwarderTest {
 protected:
    std::string dispatch(std::string_view line) {
        return printedBy([&] { dispatchCommand(line, context); });
    }
};

TEST_F(CommandDispatchTest, HasEightCommands) {
    std::vector<std::string_view> words;
    for (const auto& [word, handler] : commandTable()) {
        words.push_back(word);
    }
    EXPECT_THAT(words, testing::ElementsAre("add_lateral_peer", "del", "log", "set", "start",
                                            "start_lateral", "stats", "stop"));
}

struct CommandCase {
    const char* line;
    const char* printed;
};

class EveryCommandTest : public CommandDispatchTest,
                         public testing::WithParamInterface<CommandCase> {};

TEST_P(EveryCommandTest, CallsItsHandler) {
    EXPECT_EQ(dispatch(GetParam().line), GetParam().printed);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, EveryCommandTest,
    testing::Values(
        CommandCase{"add_lateral_peer",
                    "error addLateralPeer: bad command, missing or empty 'idx' attr\n"},
        CommandCase{"del",
                    "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
                    "error label 0\n"},
        CommandCase{"log", "error setLogParams: bad command, missing or empty 'priority' attr\n"},
        CommandCase{"set",
                    "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
                    "error setLabelAttrs: bad command for label 0\n"},
        CommandCase{"start", "error startForwarder: bad command, missing or empty 'addr' attr\n"},
        CommandCase{"start_lateral",
                    "error startLateralStream: bad command, no peers configured\n"},
        CommandCase{"stop", ""}));

TEST_F(CommandDispatchTest, StatsPrintsTheReport) {
    EXPECT_THAT(dispatch("stats"), testing::StartsWith("info \nPoll stats:\n"));
}

TEST_F(CommandDispatchTest, PassesTheWordsAfterTheCommandToTheHandler) {
    dispatch(" \tlog  priority warn\r");
    EXPECT_FALSE(logEnabled(LogLevel::info));
    dispatch("log priority info");
    EXPECT_TRUE(logEnabled(LogLevel::info));
}

TEST_F(CommandDispatchTest, ReportsUnknownCommands) {
    EXPECT_EQ(dispatch("Start addr 0.0.0.0 port 4500"), "error Unrecognised command 'Start'\n\n");
    EXPECT_EQ(dispatch("lo"), "error Unrecognised command 'lo'\n\n");
    EXPECT_EQ(dispatch("log\v"), "error Unrecognised command 'log\v'\n\n");
    EXPECT_EQ(dispatch(std::string_view("stop\0", 5)),
              std::string("error Unrecognised command 'stop\0'\n\n", 36));
}

TEST_F(CommandDispatchTest, DoesNothingForABlankLine) {
    EXPECT_EQ(dispatch(""), "");
    EXPECT_EQ(dispatch(" \t\r"), "");
}

TEST_F(CommandDispatchTest, LogsEveryLineUnchangedAtDebugLevel) {
    const AtLogLevel level("debug");
    EXPECT_EQ(dispatch(""), "debug Got message: \n");
    EXPECT_EQ(dispatch("  stop  now "), "debug Got message:   stop  now \n");
    EXPECT_EQ(dispatch("bogus"),
              "debug Got message: bogus\nerror Unrecognised command 'bogus'\n\n");
}

TEST_F(CommandDispatchTest, PropagatesAResolverFailure) {
    EXPECT_THROW(dispatch("set label 5 up_addrinfo fe80::1::2|53"), std::runtime_error);
}

}  // namespace
}  // namespace vesk
