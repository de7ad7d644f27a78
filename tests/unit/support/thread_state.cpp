#include "support/thread_state.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace vesk {

namespace {

constexpr std::chrono::seconds patience{30};
constexpr char sleeping = 'S';
constexpr char gone = '-';
constexpr std::size_t impossibleStackSize = std::size_t{1} << 50;

/// The state letter from the kernel's line for the thread. It follows the name, which is in
/// parentheses and may contain any character.
char stateOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t bracket = line.rfind(')');
    return bracket == std::string::npos || bracket + 2 >= line.size() ? gone : line[bracket + 2];
}

void setDefaultStackSize(std::size_t size) {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
}

std::size_t defaultStackSize() {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    std::size_t size = 0;
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size;
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        sched_yield();
    }
    return true;
}

void ThreadMark::set() {
    thread_ = gettid();
}

bool ThreadMark::eventuallySet() const {
    return eventually([this] { return thread_ != 0; });
}

bool ThreadMark::eventuallyEnds() const {
    return eventuallySet() && eventually([this] { return stateOf(thread_) == gone; });
}

bool ThreadMark::eventuallyBlocks() const {
    return eventuallySet() && eventually([this] { return stateOf(thread_) == sleeping; });
}

bool othersEventuallyBlock() {
    const auto isBlocked = [](const std::filesystem::directory_entry& task) {
        const pid_t thread = std::stoi(task.path().filename());
        return thread == gettid() || stateOf(thread) == sleeping;
    };
    return eventually([&isBlocked] {
        return std::ranges::all_of(std::filesystem::directory_iterator("/proc/self/task"),
                                   std::filesystem::directory_iterator(), isBlocked);
    });
}

void forbidCancelling() {
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_SIGPENDING, &limit), 0);
    limit.rlim_cur = 0;
    EXPECT_EQ(setrlimit(RLIMIT_SIGPENDING, &limit), 0);
}

ThreadShortage::ThreadShortage() : stackSizeBefore_(defaultStackSize()) {
    setDefaultStackSize(impossibleStackSize);
}

ThreadShortage::~ThreadShortage() {
    setDefaultStackSize(stackSizeBefore_);
}

}  // namespace vesk
