#include "tasks/periodic_task.h"

#include <cerrno>
#include <ctime>
#include <utility>

#include "log/log.h"

namespace vesk {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

void sleepFor(std::int64_t nanoseconds) {
    timespec remaining{};
    remaining.tv_sec = nanoseconds / nanosecondsPerSecond;
    remaining.tv_nsec = nanoseconds % nanosecondsPerSecond;
    const CancellationScope cancellable;
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

void runPeriodicTask(const std::string& name, const std::int64_t& period,
                     const std::function<void()>& action) {
    while (true) {
        endThreadIfCancelled();
        const std::int64_t wait = period;
        logInfo("Task [", name, "] will execute in [", wait / nanosecondsPerSecond, "s]");
        if (wait > 0) {
            sleepFor(wait);
        }
        logInfo("Task [", name, "] now executing");
        action();
    }
}

PeriodicTask::PeriodicTask(std::string name, std::int64_t period, std::function<void()> action)
    : name_(std::move(name)), period_(period), action_(std::move(action)) {}

int PeriodicTask::start() {
    // Copies, since a thread that cannot be stopped outlives this object.
    return thread_.start([name = name_, period = period_, action = action_] {
        runPeriodicTask(name, period, action);
    });
}

}  // namespace vesk
