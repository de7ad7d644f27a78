// The forwarder process from start to end, in a child process.

#include "app/forwarder_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "context/forwarder_context.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

/// Calls `prepare` in a child, then runs the forwarder there with `input` as standard input.
ChildResult runWith(
    const std::vector<const char*>& texts, const std::string& input,
    const std::function<void()>& prepare = [] {}) {
    Pipe commands;
    EXPECT_EQ(write(commands.write.get(), input.data(), input.size()),
              static_cast<ssize_t>(input.size()));
    commands.write.reset();
    return runInChild([&] {
        dup2(commands.read.get(), STDIN_FILENO);
        unsetenv("__TORLEXA_OPENSSL_FIPS");
        unsetenv("__MIRVOX_OPENSSL_FIPS");
        prepare();
        return runForwarder(texts);
    });
}

constexpr int failureStatus = 255;

TEST(ForwarderProcessTest, EndsAtOnceWithBadArguments) {
    for (const char* text : {"UDPV2", ""}) {
        const ChildResult child = runWith({text}, "");
        EXPECT_EQ(child.exitCode, failureStatus);
        EXPECT_THAT(child.printed,
                    EndsWith("error Bad UDP version argument [" + std::string(text) + "]\n"));
    }
}

TEST(ForwarderProcessTest, EndsAtOnceWhenTheRequiredFipsModeIsMissing) {
    const ChildResult child = runWith({}, "", [] { setenv("__MIRVOX_OPENSSL_FIPS", "", 1); });
    if (child.exitCode == 0) {
        GTEST_SKIP() << "this host's libcrypto has a FIPS provider";
    }
    EXPECT_EQ(child.exitCode, failureStatus);
    EXPECT_THAT(child.printed, EndsWith("error Failed to initialize FIPS mode!\n"));
}

TEST(ForwarderProcessTest, StartsEveryThreadAndEndsAtTheEndOfInput) {
    const ChildResult child = runWith({"udpv1", "60", "true", "false", "extra"}, "");
    EXPECT_EQ(child.exitCode, 0);
    std::string workers;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i) {
        workers += "info created upstream recvThread [0-9]+\n";
    }
    // The task logs its schedule from its own thread, so the line may come at any of these places.
    const std::string task = "(info Task \\[FlowCleanUpTask\\] will execute in \\[60s\\]\n)?";
    EXPECT_THAT(
        child.printed,
        MatchesRegex(".* allowCoreDumps: .*\n"
                     "info Initial OpenSSL FIPS mode is inactive.\n"
                     "info OpenSSL FIPS mode activation is not required.\n"
                     "info Starting forwarder with UDPv1\n" +
                     workers + "info Created pollLoop thread: [0-9a-f]+\n" + task +
                     "info Created periodic task \\[FlowCleanUpTask\\] thread: [0-9a-f]+; main/aux "
                     "flow cleanup switches \\[1/0\\]\n" +
                     task + "info cltMessageLoop: Got EOF, exiting...\n\n" + task));
}

TEST(ForwarderProcessTest, LogsItsVersionAndSwitches) {
    const ChildResult child = runWith({"udpv2", "600", "false", "false"}, "");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.printed, HasSubstr("info Starting forwarder with UDPv2\n"));
    EXPECT_THAT(child.printed, HasSubstr("flow cleanup switches [0/0]\n"));
}

TEST(ForwarderProcessTest, ExecutesCommandsInOrder) {
    const ChildResult child = runWith({}, "bogus\nlog priority warn\nstop\nset label 5\nlast");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.printed, HasSubstr("error Unrecognised command 'bogus'\n\n"));
    EXPECT_THAT(child.printed, HasSubstr("error Unrecognised command 'last'\n\n"));
    EXPECT_THAT(child.printed, testing::Not(HasSubstr("Got EOF")));
}

TEST(ForwarderProcessTest, EndsAtTheEndOfInputWhileListening) {
    const ChildResult child = runWith({}, "start addr ::1 port 0\nstart addr 127.0.0.1 port 0\n");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.printed, HasSubstr("info Vesk started on port 0 address ::1\n"));
}

TEST(ForwarderProcessTest, ReportsAShortageOfDescriptors) {
    const ChildResult child = runWith({}, "", [] {
        // See DescriptorShortage: the sanitizers must have seen this type before.
        std::make_shared<ForwarderContext>(2).reset();
        static const DescriptorShortage shortage(0);
    });
    EXPECT_EQ(child.exitCode, 256 - EMFILE);
    EXPECT_THAT(child.printed,
                EndsWith("error Failed to create socketpair for poll socket: Too many open files\n"
                         "error Failed to create poll socks\n"));
}

TEST(ForwarderProcessTest, ReportsAShortageOfThreads) {
    const ChildResult child = runWith({}, "", [] { static const ThreadShortage shortage; });
    EXPECT_THAT(child.printed,
                EndsWith("error Failed to create Upstream Recv Threads, Error: Resource "
                         "temporarily unavailable\nerror Failed to create upstream threads\n"));
    EXPECT_NE(child.exitCode, 0);
}

TEST(ForwarderProcessTest, KeepsRunningWhenTheReaderOfItsLogHasGone) {
    const ChildResult child = runWith({}, "bogus\n", [] {
        Pipe log;
        dup2(log.write.get(), STDOUT_FILENO);
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ForwarderProcessTest, NeverGivesClosedStandardDescriptorsToItsSockets) {
    const ChildResult child = runWith({}, "", [] {
        close(STDIN_FILENO);
        close(STDERR_FILENO);
    });
    // Reading fails, which is not the end of input.
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.printed, testing::Not(HasSubstr("Got EOF")));
    EXPECT_THAT(child.printed, HasSubstr("info Created pollLoop thread: "));
}

}  // namespace
}  // namespace vesk
