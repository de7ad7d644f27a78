// One of the forwarder's threads, run by the test as a separate context on the test's thread. It
// pauses at chosen system calls and continues when the test lets it. With a few actors a test runs
// the steps of different threads in any order, independent of the scheduler.
//
// For test programs that are linked with --wrap for recvmsg, epoll_wait and the Lingerer (see
// CMakeLists.txt): an actor pauses before and after each recvmsg, and before each epoll_wait. It
// must not pause while it holds a lock.
#pragma once

#include <ucontext.h>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace vesk::model {

class Actor {
 public:
    Actor() : stack_(stackSize) {}
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

    // For the wrapped calls.

    /// The actor that is running, if any.
    static Actor* current();
    void pause();
    std::optional<int> takeReceiveError() { return std::exchange(receiveError_, std::nullopt); }

 private:
    static constexpr std::size_t stackSize = std::size_t{256} * 1024;

    static void enter();

    std::vector<char> stack_;
    ucontext_t own_{};
    ucontext_t test_{};
    std::function<void()> action_;
    std::optional<int> receiveError_;
    bool busy_ = false;
};

}  // namespace vesk::model
