#include "poll/receive_worker.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "base/thread_control.h"

namespace vesk {

namespace {

constexpr std::uint32_t microsecondsPerSecond = 1000000;

/// So many receive calls since it last waited, and a worker counts as busy.
constexpr unsigned busyCalls = 16;

class ReceiveWorker {
 public:
    explicit ReceiveWorker(PollParam& param) : param_(param) {}

    [[noreturn]] void run();

 private:
    void lingerIfBusy() const;
    void collectDescriptors();
    void waitForDescriptors() VESK_REQUIRES(param_.mutex);
    void makePass();
    bool serve(int fd);
    void pauseAfterPass() const;

    PollParam& param_;
    /// Still to be served, and known to nobody else.
    std::vector<int> serving_;
    unsigned callsSinceWait_ = 0;
};

void ReceiveWorker::run() {
    while (true) {
        endThreadIfCancelled();
        lingerIfBusy();
        collectDescriptors();
        makePass();
        pauseAfterPass();
    }
}

/// Under load a worker with nothing left to do lets the other threads go first, once, before it
/// waits: mostly more is there by then, and neither waiting nor being woken has to be paid for.
void ReceiveWorker::lingerIfBusy() const {
    if (serving_.empty() && callsSinceWait_ >= busyCalls) {
        sched_yield();
    }
}

void ReceiveWorker::collectDescriptors() {
    const MutexLock lock(param_.mutex);
    if (serving_.empty()) {
        waitForDescriptors();
    }
    serving_.insert(serving_.end(), param_.queue.begin(), param_.queue.end());
    param_.queue.clear();
}

void ReceiveWorker::waitForDescriptors() {
    while (param_.queue.empty()) {
        callsSinceWait_ = 0;
        {
            const CancellationScope cancellable;
            param_.ready.wait(param_.mutex);
        }
        param_.wakeCount.increment();
        param_.queueDepthSum.store(param_.queueDepthSum.load(std::memory_order_relaxed) +
                                       static_cast<std::uint32_t>(param_.queue.size()),
                                   std::memory_order_relaxed);
    }
}

void ReceiveWorker::makePass() {
    std::erase_if(serving_, [this](int fd) { return !serve(fd); });
    if (param_.passEnd) {
        param_.passEnd(serving_);
    }
}

/// One receive call; true where the descriptor wants another.
bool ReceiveWorker::serve(int fd) {
    ++callsSinceWait_;
    bool keep = true;
    const int received = param_.receive(fd, keep, param_.workerParameter);
    if (received > 0) {
        param_.receivedTotal.add(static_cast<std::uint64_t>(received));
    }
    return keep;
}

void ReceiveWorker::pauseAfterPass() const {
    if (param_.pause == 0) {
        return;
    }
    const CancellationScope cancellable;
    if (param_.pause < microsecondsPerSecond) {
        usleep(param_.pause);
    } else {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): it is nanosleep on Linux, no signal is involved
        sleep(param_.pause / microsecondsPerSecond);
    }
}

}  // namespace

void runReceiveWorker(PollParam& param) {
    ReceiveWorker(param).run();
}

}  // namespace vesk
