// Each test runs in its own process, because a table never becomes smaller.

#include "app/descriptor_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <string>

#include "support/child_process.h"

namespace vesk {
namespace {

/// The size of this process's descriptor table.
rlim_t tableSize() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "FDSize:") {
            rlim_t size = 0;
            status >> size;
            return size;
        }
    }
    return 0;
}

/// Sets the soft limit; returns the limit that applies.
rlim_t limitDescriptors(rlim_t soft) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(soft, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

TEST(DescriptorTableTest, IsAsLargeAsTheLimit) {
    const ChildResult child = runInChild([] {
        const rlim_t limit = limitDescriptors(1000);
        reserveDescriptorTable();
        return tableSize() >= limit ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(DescriptorTableTest, IsNotLargerThanTheMaximum) {
    const ChildResult child = runInChild([] {
        const rlim_t limit = limitDescriptors(std::numeric_limits<rlim_t>::max());
        reserveDescriptorTable();
        constexpr rlim_t maximum = maxReservedDescriptors;
        return tableSize() >= std::min(limit, maximum) && tableSize() <= maximum ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(DescriptorTableTest, OpensNoDescriptor) {
    const ChildResult child = runInChild([] {
        const rlim_t limit = limitDescriptors(1000);
        reserveDescriptorTable();
        return fcntl(static_cast<int>(limit) - 1, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(DescriptorTableTest, IgnoresALimitBelowTheDescriptorsInUse) {
    const ChildResult child = runInChild([] {
        limitDescriptors(1);
        reserveDescriptorTable();
        limitDescriptors(0);
        reserveDescriptorTable();
        return 0;
    });
    EXPECT_EQ(child.exitCode, 0);
}

}  // namespace
}  // namespace vesk
