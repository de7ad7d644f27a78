#include "service/signal_source.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>

namespace vesk::controller {
namespace {

TEST(SignalSource, ReturnsSignalsInsteadOfDeliveringThem) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    {
        const SignalSource source({SIGUSR1, SIGUSR2});
        EXPECT_EQ(source.next(), std::nullopt);
        raise(SIGUSR2);
        EXPECT_EQ(source.next(), SIGUSR2);
        EXPECT_EQ(source.next(), std::nullopt);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
}  // namespace vesk::controller
