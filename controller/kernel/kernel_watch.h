// Reads the kernel's figures beside the controller's loop, which must not wait for them: with
// thousands of sockets that takes a good part of a second. Called by service/supervisor, from its
// one thread.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <utility>

#include "base/sync.h"
#include "kernel/kernel_reader.h"
#include "kernel/port_warning.h"

namespace vesk::controller {

class KernelWatch {
 public:
    using Publish = std::function<void(const KernelFigures&)>;

    /// `root` is where the proc file system is mounted.
    explicit KernelWatch(std::string root = "/proc") : reader_(std::move(root)) {}

    /// Starts a reading, unless one is still going on, or the last one took so long that a further
    /// one now would use more than a fiftieth of a processor. `publish` is called with its figures
    /// from a thread of the watch, at the latest when the watch is destroyed.
    void look(KernelTarget target, Publish publish);

    /// What is to be warned of since the last call, if anything.
    std::optional<std::string> takeWarning();

 private:
    using Clock = std::chrono::steady_clock;

    void readAndPublish(const KernelTarget& target, const Publish& publish);

    // These belong to the reading while one is going on.
    KernelReader reader_;
    PortWarning portWarning_;
    Clock::time_point restsUntil_;

    Mutex mutex_;
    std::optional<std::string> warning_ VESK_GUARDED_BY(mutex_);
    // Last: its end waits for the reading that uses the others.
    std::future<void> reading_;
};

}  // namespace vesk::controller
