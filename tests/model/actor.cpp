#include "actor.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

#include "support/receive_hook.h"

namespace vesk::model {

namespace {

thread_local Actor* currentActor = nullptr;

/// Receives one datagram, and as many empty ones as the call still has room for.
long receiveOneAndFill(const ReceiveCall& call) {
    if (call.makeForOne() != 1) {
        return -1;
    }
    for (mmsghdr& message : call.messages().subspan(1)) {
        message.msg_len = 0;
        message.msg_hdr.msg_controllen = 0;
    }
    return static_cast<long>(call.messages().size());
}

long receive(Actor& actor, const ReceiveCall& call) {
    if (const std::optional<int> failure = actor.takeReceiveError()) {
        errno = *failure;
        return -1;
    }
    return actor.takeFillsReceive() ? receiveOneAndFill(call) : call.make();
}

long receiveWithPauses(const ReceiveCall& call) {
    Actor* const actor = Actor::current();
    if (actor == nullptr) {
        return call.make();
    }
    actor->pause();
    const long received = receive(*actor, call);
    const int error = errno;
    actor->pause();
    errno = error;
    return received;
}

}  // namespace

Actor::Actor() : stack_(stackSize) {
    hookReceives(receiveWithPauses);
}

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
int __real_epoll_wait(int set, epoll_event* events, int count, int timeout);

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
