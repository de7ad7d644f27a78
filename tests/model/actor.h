// One of the forwarder's threads, run by the test as a separate context on the test's thread. It
// pauses at chosen system calls and continues when the test lets it. With a few actors a test runs
// the steps of different threads in any order, independent of the scheduler.
//
// For test programs that are linked with --wrap for epoll_wait and the Lingerer (see
// CMakeLists.txt) and with vesk_unit_receive_hook: an actor pauses before and after each receive
// call that does not wait, and before each epoll_wait. It must not pause while it holds a lock.
#pragma once

#include <ucontext.h>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace vesk::model {

class Actor {
 public:
    /// Must be called on the thread on which the actor will run.
    Actor();
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;
    /// The action must have ended.
    ~Actor() = default;

    /// Begins the action and returns when the actor pauses or has ended.
    void run(std::function<void()> action);
    /// Continues a paused action until it pauses again or has ended.
    void resume();
    bool paused() const { return busy_; }

    /// Makes the receive call that the actor pauses before fail with this error.
    void failReceive(int error) { receiveError_ = error; }
    /// Makes that call return one datagram, and empty ones in all other places of the batch.
    void fillReceive() { fillsReceive_ = true; }

    // For the wrapped calls.

    /// The actor that is running, if any.
    static Actor* current();
    void pause();
    std::optional<int> takeReceiveError() { return std::exchange(receiveError_, std::nullopt); }
    bool takeFillsReceive() { return std::exchange(fillsReceive_, false); }

 private:
    static constexpr std::size_t stackSize = std::size_t{256} * 1024;

    static void enter();

    std::vector<char> stack_;
    ucontext_t own_{};
    ucontext_t test_{};
    std::function<void()> action_;
    std::optional<int> receiveError_;
    bool fillsReceive_ = false;
    bool busy_ = false;
};

}  // namespace vesk::model
