// Starting threads, and ending them by cancel and join.
//
// A cancellation that strikes inside a destructor ends the process, so a thread started here runs
// with cancellation off and lets it in only where it says so, with a CancellationScope.
#pragma once

#include <pthread.h>

#include <functional>

namespace vesk {

/// While it lives, the calling thread may be cancelled at a cancellation point. Put it around the
/// thread's one blocking wait and around nothing else.
class CancellationScope {
 public:
    CancellationScope() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~CancellationScope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;
};

/// Ends the calling thread here if somebody has asked for it: for a pass that may never block.
void endThreadIfCancelled();

/// A thread with its body. It neither moves nor is copied: the running thread refers to the body
/// in place. Used by the thread that owns it, usually main.
class CancellableThread {
 public:
    CancellableThread() = default;
    /// Stops the thread if it still runs.
    ~CancellableThread();
    CancellableThread(const CancellableThread&) = delete;
    CancellableThread& operator=(const CancellableThread&) = delete;

    /// Starts the body with default attributes. 0, or pthread_create's error code (errno is left
    /// as that call left it), and then nothing runs. Call it only while nothing runs.
    int start(std::function<void()> body);

    /// Cancels and joins. 0, or an error code of the two calls; any but ESRCH (the thread had ended
    /// by itself) is logged. Once joined, the body and all it holds are gone.
    int stop();

    bool started() const { return started_; }
    /// 0 while nothing was started.
    pthread_t id() const { return id_; }

 private:
    int cancelAndJoin() const;

    pthread_t id_{};
    bool started_ = false;
    std::function<void()> body_;
};

}  // namespace vesk
