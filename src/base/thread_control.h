// Starts threads, and ends them by cancelling and joining. A handle is used by the thread that owns
// it, usually main; the rest by the thread that was started.
//
// A thread that is cancelled inside a destructor ends the process. A thread started here therefore
// runs with cancellation disabled, and enables it only by a CancellationScope.
#pragma once

#include <pthread.h>

#include <functional>
#include <memory>

namespace vesk {

/// While it exists, the calling thread may be cancelled at a cancellation point. Put it around the
/// thread's one blocking wait and nothing else.
class CancellationScope {
 public:
    CancellationScope() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~CancellationScope() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;
};

/// Ends the calling thread if it was cancelled. For loops whose passes may never block.
void endThreadIfCancelled();

/// The handle of a thread. The handle and the running thread share the body: a thread that cannot
/// be stopped keeps the body, with all that the body captured by value, after the handle is
/// destroyed. Otherwise the handle destroys the body after the join.
class CancellableThread {
 public:
    CancellableThread() = default;
    /// Stops the thread if it was started and not stopped.
    ~CancellableThread();
    CancellableThread(const CancellableThread&) = delete;
    CancellableThread& operator=(const CancellableThread&) = delete;

    /// Runs the body on a new thread with default attributes. 0, or the error code of
    /// pthread_create, with errno as that call left it; then no thread runs. Call it only if there
    /// was no start before, or after a stop that did not leave the thread running.
    int start(std::function<void()> body);

    /// Cancels and joins the thread. 0, or the error code of the call that failed. ESRCH: there was
    /// no thread, or it had ended by itself. Any other error is logged, and the thread is left
    /// running. Once the thread is joined, the body is destroyed.
    int stop();

    /// Whether there is a thread to stop.
    bool started() const { return state_ == State::started; }
    /// Whether a stop has failed: the thread may run until the process ends.
    bool leftRunning() const { return state_ == State::leftRunning; }
    /// 0 before the first start and after a stop.
    pthread_t id() const { return id_; }

 private:
    enum class State { ended, started, leftRunning };

    int cancelAndJoin() const;

    pthread_t id_{};
    State state_ = State::ended;
    /// Released by every stop, so that the body may hold a reference to the owner of this handle.
    std::shared_ptr<std::function<void()>> body_;
};

}  // namespace vesk
