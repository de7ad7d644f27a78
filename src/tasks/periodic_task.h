// Runs a named function on its own thread, once per period, until the thread is cancelled. Started
// and stopped by the main thread.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "base/thread_control.h"

namespace vesk {

/// Waits one period, runs the action, and repeats. The period is read again for each wait; if it is
/// 0 or less there is no wait. An empty action throws std::bad_function_call. The calling thread
/// can be cancelled only during and before each wait.
void runPeriodicTask(const std::string& name, const std::chrono::nanoseconds& period,
                     const std::function<void()>& action);

/// A periodic task with its thread. Owned by the main thread.
class PeriodicTask {
 public:
    PeriodicTask(std::string name, std::chrono::nanoseconds period, std::function<void()> action);

    /// 0, or the error code of pthread_create.
    int start();
    int stop() { return thread_.stop(); }
    /// Whether a stop has failed.
    bool leftRunning() const { return thread_.leftRunning(); }
    pthread_t threadId() const { return thread_.id(); }

 private:
    const std::string name_;
    const std::chrono::nanoseconds period_;
    const std::function<void()> action_;
    CancellableThread thread_;
};

}  // namespace vesk
