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
    explicit ReceiveWorker(PollParam& param) : param_(param) { serving_.reserve(usualReadyCount); }

    [[noreturn]] void run();

 private:
    void lingerIfBusy() const;
    void collectDescriptors();
    bool takeQueue(bool woken);
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
    bool woken = false;
    while (!takeQueue(woken)) {
        callsSinceWait_ = 0;
        const CancellationScope cancellable;
        param_.wakeUp.wait();
        woken = true;
    }
}

/// Takes over what was handed out; false where there is nothing to do, and a wake-up will come.
bool ReceiveWorker::takeQueue(bool woken) {
    const MutexLock lock(param_.mutex);
    if (woken) {
        param_.wakeCount.increment();
        param_.queueDepthSum.store(param_.queueDepthSum.load(std::memory_order_relaxed) +
                                       static_cast<std::uint32_t>(param_.queue.size()),
                                   std::memory_order_relaxed);
    }
    serving_.insert(serving_.end(), param_.queue.begin(), param_.queue.end());
    param_.queue.clear();
    param_.waiting = serving_.empty();
    return !param_.waiting;
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
