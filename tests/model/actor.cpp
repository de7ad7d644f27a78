#include "actor.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

namespace vesk::model {

namespace {

thread_local Actor* currentActor = nullptr;

}  // namespace

void Actor::run(std::function<void()> action) {
    action_ = std::move(action);
    busy_ = true;
    getcontext(&own_);
    own_.uc_stack.ss_sp = stack_.data();
    own_.uc_stack.ss_size = stack_.size();
    own_.uc_link = &test_;
    makecontext(&own_, &Actor::enter, 0);
    resume();
}

void Actor::resume() {
    currentActor = this;
    swapcontext(&test_, &own_);
    currentActor = nullptr;
}

Actor* Actor::current() {
    return currentActor;
}

void Actor::pause() {
    swapcontext(&own_, &test_);
}

void Actor::enter() {
    Actor& actor = *currentActor;
    actor.action_();
    actor.busy_ = false;
}

}  // namespace vesk::model

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
// With --wrap the linker resolves calls to the __wrap_ functions, and the __real_ names to the
// original ones.
extern "C" {
ssize_t __real_recvmsg(int socket, msghdr* message, int flags);
int __real_epoll_wait(int set, epoll_event* events, int count, int timeout);

ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags) {
    vesk::model::Actor* const actor = vesk::model::Actor::current();
    if (actor == nullptr) {
        return __real_recvmsg(socket, message, flags);
    }
    actor->pause();
    const std::optional<int> failure = actor->takeReceiveError();
    const ssize_t received = failure ? -1 : __real_recvmsg(socket, message, flags);
    const int error = failure.value_or(errno);
    actor->pause();
    errno = error;
    return received;
}

int __wrap_epoll_wait(int set, epoll_event* events, int count, int timeout) {
    vesk::model::Actor* const actor = vesk::model::Actor::current();
    if (actor == nullptr) {
        return __real_epoll_wait(set, events, count, timeout);
    }
    actor->pause();
    return __real_epoll_wait(set, events, count, 0);
}

// Lingerer::linger: whether the poll thread takes records early must not depend on the load.
bool __wrap__ZN4vesk8Lingerer6lingerEv(void* /*lingerer*/) {
    return false;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
