// Each test runs in its own process: a process cannot raise a hard limit that it has lowered.

#include "app/core_dumps.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/child_process.h"

namespace vesk {
namespace {

constexpr uid_t nobody = 65534;

/// Lowers the limits, gives up the right to raise them, and calls allowCoreDumps().
ChildResult tryWith(rlim_t soft, rlim_t hard) {
    return runInChild([=] {
        const rlimit limit{soft, hard};
        if (setrlimit(RLIMIT_CORE, &limit) != 0 || (getuid() == 0 && setuid(nobody) != 0)) {
            return 1;
        }
        allowCoreDumps();
        rlimit after{};
        getrlimit(RLIMIT_CORE, &after);
        return after.rlim_cur == hard && after.rlim_max == hard ? 0 : 2;
    });
}

/// A user namespace may have no user but root.
bool rightCanBeGivenUp() {
    return runInChild([] {
               return getuid() == 0 && setuid(nobody) != 0 && errno == EINVAL ? 1 : 0;
           }).exitCode == 0;
}

constexpr auto noOtherUser = "this user namespace has no user but root";

bool hardLimitIs(rlim_t expected) {
    rlimit limit{};
    getrlimit(RLIMIT_CORE, &limit);
    return limit.rlim_max == expected;
}

TEST(CoreDumpsTest, RemovesTheLimitWhereItMay) {
    if (!hardLimitIs(RLIM_INFINITY)) {
        GTEST_SKIP() << "this process may not raise its core file limit";
    }
    const ChildResult child = runInChild([] {
        const rlimit low{0, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &low);
        allowCoreDumps();
        rlimit after{};
        getrlimit(RLIMIT_CORE, &after);
        return after.rlim_cur == RLIM_INFINITY ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, "info allowCoreDumps: removed core size limit\n");
}

const std::string failure =
    "warn allowCoreDumps: failed to remove core size limit, Operation not permitted\n";

TEST(CoreDumpsTest, RaisesTheSoftLimitToTheHardLimit) {
    if (!rightCanBeGivenUp()) {
        GTEST_SKIP() << noOtherUser;
    }
    const ChildResult child = tryWith(0, 0);
    ASSERT_NE(child.exitCode, 1);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, failure + "info allowCoreDumps: core size limit is 0, max is 0\n");
}

TEST(CoreDumpsTest, LogsTheLimitItRaisedTo) {
    if (hardLimitIs(0)) {
        GTEST_SKIP() << "this host allows no core files";
    }
    if (!rightCanBeGivenUp()) {
        GTEST_SKIP() << noOtherUser;
    }
    const ChildResult child = tryWith(0, 4096);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, failure +
                                 "info allowCoreDumps: core size limit is 0, max is 4096\n"
                                 "info allowCoreDumps: raised core size limit to 4096\n");
}

}  // namespace
}  // namespace vesk
