#include "traffic/end_request.h"

#include <csignal>

namespace vesk::bench {

namespace {

constexpr std::int64_t lookInterval = 20'000'000;

}  // namespace

EndRequest::EndRequest() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool EndRequest::arrived(std::int64_t now) {
    if (arrived_ || now < nextLook_) {
        return arrived_;
    }
    nextLook_ = now + lookInterval;
    sigset_t pending;
    ::sigemptyset(&pending);
    ::sigpending(&pending);
    arrived_ = ::sigismember(&pending, SIGINT) == 1 || ::sigismember(&pending, SIGTERM) == 1;
    return arrived_;
}

}  // namespace vesk::bench
