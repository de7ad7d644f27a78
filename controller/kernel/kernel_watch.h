// Reads the kernel's figures in a separate thread, because a reading with thousands of sockets
// takes tenths of a second and the controller's loop must not wait that long. Called by
// service/instance, from its one thread.
#pragma once

#include <chrono>
#include <cstddef>
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

    /// `root` is the mount point of the proc file system. `watches` is the number of watches of
    /// this process, which share the processor time that readings may use.
    explicit KernelWatch(std::string root = "/proc", std::size_t watches = 1)
        : reader_(std::move(root)), watches_(watches) {}

    /// Starts a reading, unless one is still in progress, or the last one ended so recently that
    /// readings would use more than a fiftieth of a processor. `publish` is called with the figures
    /// from a thread of the watch, at the latest when the watch is destroyed.
    void look(KernelTarget target, Publish publish);

    /// A warning that arose since the last call, if any.
    std::optional<std::string> takeWarning();

 private:
    using Clock = std::chrono::steady_clock;

    void readAndPublish(const KernelTarget& target, const Publish& publish);

    // Used only by the reading while one is in progress.
    KernelReader reader_;
    const std::size_t watches_;
    PortWarning portWarning_;
    Clock::time_point restsUntil_;

    Mutex mutex_;
    std::optional<std::string> warning_ VESK_GUARDED_BY(mutex_);
    // Last: its destructor waits for the reading, which uses the other members.
    std::future<void> reading_;
};

}  // namespace vesk::controller
