#include "service/passed_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace vesk::controller {
namespace {

/// Runs the check in a process of its own, whose descriptors from 3 on are copies of standard
/// input. Its exit status.
int withDescriptors(int count, const std::string& announced, const std::string& names,
                    const std::function<bool(std::vector<PassedDescriptor>)>& check,
                    bool forOther = false) {
    const pid_t child = fork();
    if (child == 0) {
        closefrom(STDERR_FILENO + 1);
        for (int number = 0; number < count; ++number) {
            dup2(STDIN_FILENO, STDERR_FILENO + 1 + number);
        }
        setenv("LISTEN_PID", std::to_string(forOther ? getppid() : getpid()).c_str(), 1);
        setenv("LISTEN_FDS", announced.c_str(), 1);
        setenv("LISTEN_FDNAMES", names.c_str(), 1);
        const bool good = check(takePassedDescriptors());
        const bool forgotten = std::getenv("LISTEN_PID") == nullptr &&
                               std::getenv("LISTEN_FDS") == nullptr &&
                               std::getenv("LISTEN_FDNAMES") == nullptr;
        _exit(good && forgotten ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

bool isNone(const std::vector<PassedDescriptor>& passed) {
    return passed.empty();
}

TEST(PassedDescriptors, HaveTheirNamesAndAreNotInherited) {
    const auto check = [](std::vector<PassedDescriptor> passed) {
        return passed.size() == 3 && passed[0].name == "one" && passed[1].name.empty() &&
               passed[2].name == "three" && passed[2].descriptor.get() == 5 &&
               (fcntl(5, F_GETFD) & FD_CLOEXEC) != 0;
    };
    EXPECT_EQ(withDescriptors(3, "3", "one::three", check), 0);
}

TEST(PassedDescriptors, MayHaveNoNames) {
    const auto check = [](std::vector<PassedDescriptor> passed) {
        return passed.size() == 2 && passed[0].name == "one" && passed[1].name.empty();
    };
    EXPECT_EQ(withDescriptors(2, "2", "one", check), 0);
}

TEST(PassedDescriptors, AreOnlyThoseThatAreOpen) {
    const auto check = [](const std::vector<PassedDescriptor>& passed) {
        return passed.size() == 1;
    };
    EXPECT_EQ(withDescriptors(1, "4", "a:b:c:d", check), 0);
}

TEST(PassedDescriptors, AreNoneForAnotherProcess) {
    EXPECT_EQ(withDescriptors(1, "1", "one", isNone, true), 0);
}

TEST(PassedDescriptors, AreNoneWithoutANumber) {
    for (const char* const announced : {"", "0", "-1", "1x", "99999999999999999999"}) {
        EXPECT_EQ(withDescriptors(1, announced, "one", isNone), 0) << announced;
    }
}

}  // namespace
}  // namespace vesk::controller
