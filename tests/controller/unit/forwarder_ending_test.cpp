#include "service/forwarder_ending.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Action = ForwarderEnding::Action;

constexpr seconds drain{30};
constexpr seconds noDrain{0};
const ForwarderEnding::Clock::time_point askedAt{std::chrono::hours(1)};

TEST(ForwarderEnding, ClosesTheInputAtOnceWithoutADrain) {
    ForwarderEnding ending;
    EXPECT_FALSE(ending.begun());
    const ForwarderEnding::Step step = ending.ask(noDrain, askedAt);
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "");
    EXPECT_TRUE(ending.begun());
    EXPECT_FALSE(ending.draining());
}

TEST(ForwarderEnding, DrainsUntilTheTrafficStops) {
    ForwarderEnding ending;
    EXPECT_EQ(ending.ask(drain, askedAt).action, Action::none);
    EXPECT_TRUE(ending.draining());
    EXPECT_EQ(ending.observe({1}, askedAt).action, Action::none);
    EXPECT_EQ(ending.observe({2}, askedAt + milliseconds(900)).action, Action::none);
    EXPECT_EQ(ending.observe({2}, askedAt + milliseconds(1800)).action, Action::none);
    const ForwarderEnding::Step step = ending.observe({2}, askedAt + milliseconds(1900));
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "");
}

TEST(ForwarderEnding, EndsTheDrainWhenAskedAgain) {
    ForwarderEnding ending;
    ending.ask(drain, askedAt);
    EXPECT_EQ(ending.ask(drain, askedAt + seconds(1)).action, Action::closeInput);
    EXPECT_EQ(ending.ask(drain, askedAt + seconds(1)).action, Action::none);
    EXPECT_EQ(ending.dueAt(), askedAt + seconds(1) + ForwarderEnding::endPatience);
}

TEST(ForwarderEnding, EndsTheDrainAtItsDeadlineDespiteTraffic) {
    ForwarderEnding ending;
    ending.ask(drain, askedAt);
    ending.observe({1}, askedAt);
    EXPECT_EQ(ending.dueAt(), askedAt + drain);
    EXPECT_EQ(ending.goOn(askedAt + drain - milliseconds(1)).action, Action::none);
    const ForwarderEnding::Step step = ending.goOn(askedAt + drain);
    EXPECT_EQ(step.action, Action::closeInput);
    EXPECT_EQ(step.reason, "the drain time is over, but there is still traffic");
}

TEST(ForwarderEnding, EndsTheDrainAtItsDeadlineWithoutAnyReport) {
    ForwarderEnding ending;
    ending.ask(drain, askedAt);
    EXPECT_EQ(ending.goOn(askedAt + drain).reason,
              "the drain time is over, and no report has arrived");
}

TEST(ForwarderEnding, TerminatesAndThenKillsAForwarderThatDoesNotEnd) {
    ForwarderEnding ending;
    ending.ask(noDrain, askedAt);
    auto now = askedAt + ForwarderEnding::endPatience;
    EXPECT_EQ(ending.goOn(now - milliseconds(1)).action, Action::none);
    ForwarderEnding::Step step = ending.goOn(now);
    EXPECT_EQ(step.action, Action::terminate);
    EXPECT_EQ(step.reason, "the forwarder does not end: sending SIGTERM");
    now += ForwarderEnding::signalPatience;
    step = ending.goOn(now);
    EXPECT_EQ(step.action, Action::kill);
    EXPECT_EQ(step.reason, "the forwarder still does not end: sending SIGKILL");
    EXPECT_EQ(ending.dueAt(), std::nullopt);
    EXPECT_EQ(ending.goOn(now + std::chrono::hours(1)).action, Action::none);
}

TEST(ForwarderEnding, TakesNoStepBeforeItIsAsked) {
    ForwarderEnding ending;
    EXPECT_EQ(ending.observe({1}, askedAt).action, Action::none);
    EXPECT_EQ(ending.observe({1}, askedAt + std::chrono::hours(1)).action, Action::none);
    EXPECT_EQ(ending.goOn(askedAt).action, Action::none);
    EXPECT_EQ(ending.dueAt(), std::nullopt);
}

}  // namespace
}  // namespace vesk::controller
