#include "tasks/periodic_task.h"

#include <cerrno>
#include <ctime>
#include <utility>

#include "base/timespec.h"
#include "log/log.h"

namespace vesk {

namespace {

void sleepFor(std::chrono::nanoseconds duration) {
    timespec remaining = toTimespec(duration);
    const CancellationScope cancellable;
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

void runPeriodicTask(const std::string& name, const std::chrono::nanoseconds& period,
                     const std::function<void()>& action) {
    while (true) {
        endThreadIfCancelled();
        const std::chrono::nanoseconds wait = period;
        logInfo("Task [", name, "] will execute in [",
                std::chrono::duration_cast<std::chrono::seconds>(wait).count(), "s]");
        if (wait.count() > 0) {
            sleepFor(wait);
        }
        logInfo("Task [", name, "] now executing");
        action();
    }
}

PeriodicTask::PeriodicTask(std::string name, std::chrono::nanoseconds period,
                           std::function<void()> action)
    : name_(std::move(name)), period_(period), action_(std::move(action)) {}

int PeriodicTask::start() {
    // Copies, since a thread that cannot be stopped outlives this object.
    return thread_.start([name = name_, period = period_, action = action_] {
        runPeriodicTask(name, period, action);
    });
}

}  // namespace vesk
