#include "poll/receive_worker.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <vector>

#include "base/thread_control.h"
#include "log/log.h"
#include "poll/linger.h"

namespace vesk {

namespace {

constexpr std::uint32_t microsecondsPerSecond = 1000000;

class ReceiveWorker {
 public:
    explicit ReceiveWorker(PollParam& param) : param_(param) { serving_.reserve(usualReadyCount); }

    [[noreturn]] void run();

 private:
    void collectDescriptors();
    bool takeQueue(bool woken);
    void wait();
    void makePass();
    bool serve(int fd);
    void pauseAfterPass() const;

    PollParam& param_;
    /// Descriptors still to be served. No other thread has them.
    std::vector<int> serving_;
    /// The longest wait that the end of the last pass allows.
    std::optional<std::chrono::milliseconds> longestWait_;
    Lingerer lingerer_;
};

void ReceiveWorker::run() {
    while (true) {
        endThreadIfCancelled();
        if (serving_.empty()) {
            // More descriptors have usually been handed out when this thread runs again.
            lingerer_.linger();
        }
        collectDescriptors();
        makePass();
        pauseAfterPass();
    }
}

/// Returns with descriptors to serve, or without if the function for the end of a pass is due.
void ReceiveWorker::collectDescriptors() {
    if (takeQueue(false)) {
        return;
    }
    do {
        wait();
    } while (!takeQueue(true) && !longestWait_);
}

void ReceiveWorker::wait() {
    const CancellationScope cancellable;
    if (longestWait_) {
        param_.wakeUp.waitFor(*longestWait_);
    } else {
        param_.wakeUp.wait();
    }
}

/// Takes the descriptors from the queue. False if there is nothing to serve; then a wake-up will
/// come.
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
    // The lines are written when no socket of this pass waits to be armed, since a write may block.
    const LogDelay delay;
    std::erase_if(serving_, [this](int fd) { return !serve(fd); });
    if (param_.passEnd) {
        longestWait_ = param_.passEnd(delay);
    }
}

/// Makes one receive call. True if the descriptor is to be served again.
bool ReceiveWorker::serve(int fd) {
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
