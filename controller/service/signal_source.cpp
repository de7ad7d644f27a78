#include "service/signal_source.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vesk::controller {

SignalSource::SignalSource(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals) {
        sigaddset(&set, number);
    }
    // The parent process may have set SIGCHLD to be ignored; children that end would then be
    // discarded before reap() sees them.
    signal(SIGCHLD, SIG_DFL);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    source_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!source_) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

std::optional<int> SignalSource::next() const {
    signalfd_siginfo information{};
    if (read(source_.get(), &information, sizeof information) != sizeof information) {
        return std::nullopt;
    }
    return static_cast<int>(information.ssi_signo);
}

}  // namespace vesk::controller
