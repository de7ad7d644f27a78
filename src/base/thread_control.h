// Starting threads, and ending them by cancel and join.
//
// A cancellation that strikes inside a destructor ends the process, so a thread started here runs
// with cancellation off and lets it in only where it says so, with a CancellationScope.
#pragma once

#include <pthread.h>

#include <functional>
#include <memory>

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

/// The handle of a thread. Used by the thread that owns it, usually main. The running thread shares
/// its body: where it cannot be stopped it goes on with the body, and with all that the body
/// captured by value, after the handle is gone. Otherwise it is the handle's owner that destroys
/// the body, after the join.
class CancellableThread {
 public:
    CancellableThread() = default;
    /// Stops the thread if it was started and not stopped.
    ~CancellableThread();
    CancellableThread(const CancellableThread&) = delete;
    CancellableThread& operator=(const CancellableThread&) = delete;

    /// Starts the body with default attributes. 0, or pthread_create's error code (errno is left
    /// as that call left it), and then nothing runs. Call it only before the first start, or after
    /// a stop that did not leave the thread running.
    int start(std::function<void()> body);

    /// Cancels and joins. 0, or an error code of the two calls; any but ESRCH (the thread had ended
    /// by itself) is logged, and the thread is then left running. Once joined, the body and all it
    /// held are gone.
    int stop();

    /// Whether there is a thread to stop.
    bool started() const { return state_ == State::started; }
    /// Whether a stop has failed: the thread may run until the process ends.
    bool leftRunning() const { return state_ == State::leftRunning; }
    /// 0 while nothing was started, and after a stop.
    pthread_t id() const { return id_; }

 private:
    enum class State { ended, started, leftRunning };

    int cancelAndJoin() const;

    pthread_t id_{};
    State state_ = State::ended;
    /// Released by every stop, so that the body may hold the owner of this handle.
    std::shared_ptr<std::function<void()>> body_;
};

}  // namespace vesk
