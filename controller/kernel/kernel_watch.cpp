#include "kernel/kernel_watch.h"

#include <system_error>

namespace vesk::controller {

void KernelWatch::look(KernelTarget target, Publish publish) {
    if (reading_.valid()) {
        if (reading_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            return;
        }
        reading_.get();
    }
    if (Clock::now() < restsUntil_) {
        return;
    }
    try {
        reading_ = std::async(std::launch::async,
                              [this, target = std::move(target), publish = std::move(publish)] {
                                  readAndPublish(target, publish);
                              });
    } catch (const std::system_error&) {
        // No thread can be started now. The next report starts another attempt.
    }
}

std::optional<std::string> KernelWatch::takeWarning() {
    const MutexLock lock(mutex_);
    return std::exchange(warning_, std::nullopt);
}

void KernelWatch::readAndPublish(const KernelTarget& target, const Publish& publish) {
    constexpr std::size_t share = 50;
    const Clock::time_point began = Clock::now();
    const KernelFigures figures = reader_.read(target);
    if (figures.ports) {
        if (std::optional<std::string> warning = portWarning_.check(*figures.ports)) {
            const MutexLock lock(mutex_);
            warning_ = std::move(warning);
        }
    }
    publish(figures);
    const Clock::time_point ended = Clock::now();
    restsUntil_ = ended + share * watches_ * (ended - began);
}

}  // namespace vesk::controller
