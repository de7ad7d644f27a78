#include "poll/receive_worker.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "base/thread_control.h"

namespace vesk {

namespace {

constexpr std::uint32_t microsecondsPerSecond = 1000000;

void waitForDescriptors(PollParam& param) VESK_REQUIRES(param.mutex) {
    while (param.queue.empty()) {
        {
            const CancellationScope cancellable;
            param.ready.wait(param.mutex);
        }
        param.wakeCount.increment();
        param.queueDepthSum.store(param.queueDepthSum.load(std::memory_order_relaxed) +
                                      static_cast<std::uint32_t>(param.queue.size()),
                                  std::memory_order_relaxed);
    }
}

void collectDescriptors(PollParam& param, std::vector<int>& serving) {
    const MutexLock lock(param.mutex);
    if (serving.empty()) {
        waitForDescriptors(param);
    }
    serving.insert(serving.end(), param.queue.begin(), param.queue.end());
    param.queue.clear();
}

/// One receive call for each descriptor; true where it wants another.
bool serve(PollParam& param, int fd) {
    bool keep = true;
    const int received = param.receive(fd, keep, param.workerParameter);
    if (received > 0) {
        param.receivedTotal.add(static_cast<std::uint64_t>(received));
    }
    return keep;
}

void pauseAfterPass(std::uint32_t microseconds) {
    if (microseconds == 0) {
        return;
    }
    const CancellationScope cancellable;
    if (microseconds < microsecondsPerSecond) {
        usleep(microseconds);
    } else {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): it is nanosleep on Linux, no signal is involved
        sleep(microseconds / microsecondsPerSecond);
    }
}

}  // namespace

void runReceiveWorker(PollParam& param) {
    std::vector<int> serving;
    while (true) {
        endThreadIfCancelled();
        collectDescriptors(param, serving);
        std::erase_if(serving, [&param](int fd) { return !serve(param, fd); });
        if (param.passEnd) {
            param.passEnd(serving);
        }
        pauseAfterPass(param.pause);
    }
}

}  // namespace vesk
