#include "child/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace vesk::controller {
namespace {

using testing::HasSubstr;

/// Reads the child's output to its end.
std::string outputOf(const ChildProcess& child) {
    std::string text;
    std::array<char, 4096> piece{};
    while (true) {
        pollfd watched{child.output(), POLLIN, 0};
        EXPECT_EQ(poll(&watched, 1, 10000), 1) << "no output for too long";
        const ssize_t got = read(child.output(), piece.data(), piece.size());
        if (got <= 0) {
            return text;
        }
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
}

int endOf(ChildProcess& child) {
    siginfo_t information{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &information, WEXITED | WNOWAIT), 0);
    const std::optional<int> status = child.reap();
    EXPECT_TRUE(status);
    return status.value_or(-1);
}

ChildProcess shell(const std::string& script) {
    return ChildProcess("sh", {"-c", script});
}

TEST(ChildProcess, HasOnlyTheStandardDescriptors) {
    ChildProcess child = shell("cat; ls /proc/self/fd");
    ASSERT_EQ(write(child.input(), "hello\n", 6), 6);
    child.closeInput();
    // Descriptor 3 is the folder that ls reads.
    EXPECT_EQ(outputOf(child), "hello\n0\n1\n2\n3\n");
    EXPECT_TRUE(endedWell(endOf(child)));
    EXPECT_EQ(child.reap(), std::nullopt);
}

TEST(ChildProcess, GetsVariablesInAdditionToTheEnvironmentOfItsParent) {
    setenv("VESK_TEST_KEPT", "kept", 1);
    setenv("VESK_TEST_REPLACED", "before", 1);
    const std::string script =
        "echo $VESK_TEST_KEPT $VESK_TEST_REPLACED $VESK_TEST_NEW; env | grep -c VESK_TEST_REPLACED";
    ChildProcess child("sh", {"-c", script}, {"VESK_TEST_REPLACED=after", "VESK_TEST_NEW=a=b"});
    EXPECT_EQ(outputOf(child), "kept after a=b\n1\n");
    EXPECT_TRUE(endedWell(endOf(child)));
    unsetenv("VESK_TEST_KEPT");
    unsetenv("VESK_TEST_REPLACED");
}

TEST(ChildProcess, StartsWithDefaultSignalsInItsOwnProcessGroup) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    signal(SIGPIPE, SIG_IGN);
    ChildProcess child = shell("grep -E '^Sig(Blk|Ign)' /proc/self/status; cat");
    EXPECT_EQ(getpgid(child.pid()), child.pid());
    child.closeInput();
    // The two signals that the thread library reserves may be ignored.
    EXPECT_THAT(outputOf(child), testing::MatchesRegex("SigBlk:\t0000000000000000\n"
                                                       "SigIgn:\t0000000(18|00)0000000\n"));
    endOf(child);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(ChildProcess, DescribesHowItEnded) {
    ChildProcess failing = shell("exit 3");
    const int failed = endOf(failing);
    EXPECT_FALSE(endedWell(failed));
    EXPECT_EQ(describeEnd(failed), "ended with status 3");

    ChildProcess killed = shell("cat");
    EXPECT_EQ(killed.reap(), std::nullopt);
    killed.signal(SIGKILL);
    const int status = endOf(killed);
    EXPECT_FALSE(endedWell(status));
    EXPECT_EQ(describeEnd(status), "was ended by signal 9 (Killed)");
}

TEST(ChildProcess, IsKilledByTheDestructor) {
    pid_t pid = -1;
    {
        const ChildProcess child = shell("cat");
        pid = child.pid();
    }
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(ChildProcess, KillsRemainingProcessesOfItsGroup) {
    ChildProcess child = shell("sleep 60 & exit 3");
    EXPECT_EQ(describeEnd(endOf(child)), "ended with status 3");
    EXPECT_EQ(outputOf(child), "");
}

TEST(ChildProcess, PassesSignalsToItsProcessGroup) {
    ChildProcess child = shell(
        "trap 'wait; exit 0' TERM; (trap 'echo told; exit' TERM; echo up; "
        "while :; do sleep 0.01; done) & wait");
    std::array<char, 3> up{};
    pollfd watched{child.output(), POLLIN, 0};
    ASSERT_EQ(poll(&watched, 1, 10000), 1);
    ASSERT_EQ(read(child.output(), up.data(), up.size()), 3);
    child.signal(SIGTERM);
    EXPECT_EQ(outputOf(child), "told\n");
    EXPECT_TRUE(endedWell(endOf(child)));
}

TEST(ChildProcess, NamesAMissingProgram) {
    try {
        const ChildProcess child("/nowhere/vesk", {});
        FAIL() << "there is no such program";
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("/nowhere/vesk"));
        EXPECT_EQ(error.code().value(), ENOENT);
    }
}

}  // namespace
}  // namespace vesk::controller
