#include "child/forwarder_session.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "child/process_descriptor.h"

namespace vesk::controller {
namespace {

/// Answers every line with the forwarder's error for an unknown command.
const std::string knowsNothing =
    "while read line; do echo \"error Unrecognised command '$line'\"; echo; done";

class ForwarderSessionTest : public testing::Test {
 protected:
    ForwarderSessionTest() { signal(SIGPIPE, SIG_IGN); }

    /// Serves the session until `done`, as the supervisor does; stores its events.
    template <typename Condition>
    void serveUntil(ForwarderSession& session, Condition done) {
        while (!done()) {
            pollfd watched[] = {{session.output(), POLLIN, 0},
                                {session.wantsToWrite() ? session.input() : -1, POLLOUT, 0}};
            ASSERT_GT(poll(watched, 2, 10000), 0) << "no output for too long";
            session.write();
            for (OutputEvent& event : session.read()) {
                if (auto* const outcome = std::get_if<Outcome>(&event)) {
                    outcomes.push_back(std::move(*outcome));
                } else if (auto* const line = std::get_if<LogLine>(&event)) {
                    lines.push_back(std::move(*line));
                }
            }
        }
    }

    std::vector<Outcome> outcomes;
    std::vector<LogLine> lines;
};

TEST_F(ForwarderSessionTest, ReturnsTheOutcomeOfEachCommand) {
    ForwarderSession session("sh", {"-c", knowsNothing});
    session.send({"one", {}, "the first"});
    session.send({"two", {}, "the second"});
    EXPECT_EQ(session.unanswered(), 2U);
    EXPECT_EQ(session.current()->subject, "the first");
    serveUntil(session, [&] { return session.unanswered() == 0; });
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes[1].command.subject, "the second");
    session.finishInput();
    serveUntil(session, [&] { return session.outputEnded(); });
}

TEST_F(ForwarderSessionTest, SendsAFenceWithoutACommand) {
    ForwarderSession session("sh", {"-c", "read line; echo \"info $line\"; exec cat >/dev/null"});
    const auto begun = session.watch().due({});
    session.sendFence();
    EXPECT_EQ(session.unanswered(), 1U);
    serveUntil(session, [&] { return !lines.empty(); });
    EXPECT_EQ(lines.front().text, "fence-1");
    EXPECT_GT(session.watch().due({}), begun);
    EXPECT_EQ(session.judge(std::chrono::hours(1)), AnswerWatch::Verdict::waiting);
    EXPECT_EQ(session.judge({}), AnswerWatch::Verdict::hung);
}

TEST_F(ForwarderSessionTest, FillsPipesWithoutWaiting) {
    // More than two full pipes, from a child that answers each line before it reads the next.
    ForwarderSession session("sh", {"-c", knowsNothing});
    const std::string longValue(10000, 'x');
    for (int i = 0; i < 300; ++i) {
        session.send({"set", {{"value", longValue}}, "a long command"});
    }
    serveUntil(session, [&] { return session.unanswered() == 0; });
    EXPECT_EQ(outcomes.size(), 300U);
}

TEST_F(ForwarderSessionTest, FinishesALineThatWasBegun) {
    // The child counts the bytes of its last line; half a line would be shorter.
    ForwarderSession session("sh", {"-c", "tail -n 1 | wc -c"});
    // The child reads nothing before the input is finished.
    kill(-session.pid(), SIGSTOP);
    ASSERT_EQ(waitpid(session.pid(), nullptr, WUNTRACED), session.pid());
    const std::string longValue(3 << 20, 'x');
    session.send({"set", {{"value", longValue}}, "a long command"});
    session.send({"set", {{"value", "short"}}, "a command that is no longer sent"});
    session.write();
    EXPECT_TRUE(session.wantsToWrite());
    session.finishInput();
    session.send({"late", {}, "too late"});
    kill(-session.pid(), SIGCONT);
    serveUntil(session, [&] { return session.outputEnded(); });
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, std::to_string(longValue.size() + sizeof "set value "));
}

TEST_F(ForwarderSessionTest, SurvivesTheEndOfItsChild) {
    ForwarderSession session("sh", {"-c", "exec <&-; echo unfinished | tr -d '\\n'"});
    serveUntil(session, [&] { return session.outputEnded(); });
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, "unfinished");
    session.send({"set", {}, "after the end"});
    session.write();
    EXPECT_FALSE(session.wantsToWrite());
    EXPECT_EQ(session.unanswered(), 1U);
}

TEST_F(ForwarderSessionTest, GoesOnWithAForwarderThatItHasNotStarted) {
    ForwarderSession first("sh", {"-c", knowsNothing});
    // Half a command, and the answer to one that nobody has read.
    ASSERT_EQ(write(first.input(), "fence-1\nhalf a comm", 19), 19);
    ForwarderSession second({UniqueFd(dup(first.input())), UniqueFd(dup(first.output())),
                             processDescriptor(first.pid())});
    EXPECT_EQ(second.pid(), first.pid());
    EXPECT_EQ(second.reap(), std::nullopt);
    second.send({"one", {}, "the first"});
    serveUntil(second, [&] { return second.unanswered() == 0; });
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_TRUE(outcomes[0].errors.empty());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "Unrecognised command 'half a comm fence-0'");
    EXPECT_EQ(lines[1].text, "Unrecognised command 'one'");

    second.signal(SIGKILL);
    pollfd end{second.end(), POLLIN, 0};
    ASSERT_EQ(poll(&end, 1, 10000), 1);
    EXPECT_EQ(second.reap(), std::optional(unknownStatus));
    EXPECT_EQ(describeEnd(unknownStatus), "ended");
    EXPECT_TRUE(endedWell(unknownStatus));
    serveUntil(second, [&] { return second.outputEnded(); });
}

}  // namespace
}  // namespace vesk::controller
