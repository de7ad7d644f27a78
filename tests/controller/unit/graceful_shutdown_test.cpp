#include "service/graceful_shutdown.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Action = GracefulShutdown::Action;

constexpr seconds drain{30};
constexpr seconds noDrain{0};
const GracefulShutdown::Clock::time_point askedAt{std::chrono::hours(1)};

TEST(GracefulShutdown, ClosesTheInputAtOnceWithoutADrain) {
    GracefulShutdown shutdown;
    EXPECT_FALSE(shutdown.begun());
    const GracefulShutdown::Step step = shutdown.ask(noDrain, askedAt);
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "");
    EXPECT_TRUE(shutdown.begun());
    EXPECT_FALSE(shutdown.draining());
}

TEST(GracefulShutdown, DrainsUntilTheTrafficStops) {
    GracefulShutdown shutdown;
    EXPECT_EQ(shutdown.ask(drain, askedAt).action, Action::none);
    EXPECT_TRUE(shutdown.draining());
    EXPECT_EQ(shutdown.observe({1}, askedAt).action, Action::none);
    EXPECT_EQ(shutdown.observe({2}, askedAt + milliseconds(900)).action, Action::none);
    EXPECT_EQ(shutdown.observe({2}, askedAt + milliseconds(1800)).action, Action::none);
    const GracefulShutdown::Step step = shutdown.observe({2}, askedAt + milliseconds(1900));
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "");
}

TEST(GracefulShutdown, EndsTheDrainWhenAskedAgain) {
    GracefulShutdown shutdown;
    shutdown.ask(drain, askedAt);
    EXPECT_EQ(shutdown.ask(drain, askedAt + seconds(1)).action, Action::closeInput);
    EXPECT_EQ(shutdown.ask(drain, askedAt + seconds(1)).action, Action::none);
    EXPECT_EQ(shutdown.dueAt(), askedAt + seconds(1) + GracefulShutdown::endPatience);
}

TEST(GracefulShutdown, EndsTheDrainAtItsDeadlineDespiteTraffic) {
    GracefulShutdown shutdown;
    shutdown.ask(drain, askedAt);
    shutdown.observe({1}, askedAt);
    EXPECT_EQ(shutdown.dueAt(), askedAt + drain);
    EXPECT_EQ(shutdown.goOn(askedAt + drain - milliseconds(1)).action, Action::none);
    const GracefulShutdown::Step step = shutdown.goOn(askedAt + drain);
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "the drain time is over, but there is still traffic");
}

TEST(GracefulShutdown, EndsTheDrainAtItsDeadlineWithoutAnyReport) {
    GracefulShutdown shutdown;
    shutdown.ask(drain, askedAt);
    EXPECT_EQ(shutdown.goOn(askedAt + drain).reason,
              "the drain time is over, and no report has arrived");
}

TEST(GracefulShutdown, TerminatesAndThenKillsAForwarderThatDoesNotEnd) {
    GracefulShutdown shutdown;
    shutdown.ask(noDrain, askedAt);
    auto now = askedAt + GracefulShutdown::endPatience;
    EXPECT_EQ(shutdown.goOn(now - milliseconds(1)).action, Action::none);
    GracefulShutdown::Step step = shutdown.goOn(now);
    EXPECT_EQ(step.action, Action::terminate);
    EXPECT_EQ(step.reason, "the forwarder does not end: sending SIGTERM");
    now += GracefulShutdown::signalPatience;
    step = shutdown.goOn(now);
    EXPECT_EQ(step.action, Action::kill);
    EXPECT_EQ(step.reason, "the forwarder still does not end: sending SIGKILL");
    EXPECT_EQ(shutdown.dueAt(), std::nullopt);
    EXPECT_EQ(shutdown.goOn(now + std::chrono::hours(1)).action, Action::none);
}

TEST(GracefulShutdown, TakesNoStepBeforeItIsAsked) {
    GracefulShutdown shutdown;
    EXPECT_EQ(shutdown.observe({1}, askedAt).action, Action::none);
    EXPECT_EQ(shutdown.observe({1}, askedAt + std::chrono::hours(1)).action, Action::none);
    EXPECT_EQ(shutdown.goOn(askedAt).action, Action::none);
    EXPECT_EQ(shutdown.dueAt(), std::nullopt);
}

}  // namespace
}  // namespace vesk::controller
