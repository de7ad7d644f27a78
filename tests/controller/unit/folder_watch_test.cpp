#include "config/fragments/folder_watch.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>

#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using Clock = ChangeTimer::Clock;
using std::chrono::milliseconds;

TEST(ChangeTimer, LooksFromTimeToTimeWithoutEvents) {
    const Clock::time_point opened{};
    ChangeTimer timer(opened);
    EXPECT_EQ(timer.dueAt(), opened + ChangeTimer::period);
    timer.look(opened + milliseconds(500));
    EXPECT_EQ(timer.dueAt(), opened + milliseconds(500) + ChangeTimer::period);
}

TEST(ChangeTimer, LooksThoroughlyAfterEventsAndOnceAMinute) {
    Clock::time_point now{};
    ChangeTimer timer(now);
    EXPECT_TRUE(timer.look(now));
    for (now += ChangeTimer::period; now < Clock::time_point{} + ChangeTimer::thoroughPeriod;
         now += ChangeTimer::period) {
        EXPECT_FALSE(timer.look(now));
    }
    EXPECT_TRUE(timer.look(now));
    EXPECT_FALSE(timer.look(now + ChangeTimer::period));
    timer.event(now + ChangeTimer::period);
    EXPECT_TRUE(timer.look(now + ChangeTimer::period));
    EXPECT_FALSE(timer.look(now + ChangeTimer::thoroughPeriod));
    EXPECT_TRUE(timer.look(now + ChangeTimer::period + ChangeTimer::thoroughPeriod));
}

TEST(ChangeTimer, TakesEventsCloseTogetherAsOneChange) {
    const Clock::time_point opened{};
    ChangeTimer timer(opened);
    timer.event(opened);
    EXPECT_EQ(timer.dueAt(), opened + ChangeTimer::quiet);
    timer.event(opened + milliseconds(90));
    EXPECT_EQ(timer.dueAt(), opened + milliseconds(90) + ChangeTimer::quiet);
}

TEST(ChangeTimer, DoesNotWaitForTheEndOfEventsForever) {
    const Clock::time_point opened{};
    ChangeTimer timer(opened);
    for (milliseconds now{0}; now <= ChangeTimer::longest; now += milliseconds(50)) {
        timer.event(opened + now);
    }
    EXPECT_EQ(timer.dueAt(), opened + ChangeTimer::longest);
    timer.look(opened + ChangeTimer::longest);
    timer.event(opened + milliseconds(2000));
    EXPECT_EQ(timer.dueAt(), opened + milliseconds(2000) + ChangeTimer::quiet);
}

bool hasEvents(const FolderWatch& watch) {
    pollfd waiting{watch.descriptor(), POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

bool isDueSoon(const FolderWatch& watch) {
    return watch.dueAt() < Clock::now() + ChangeTimer::period / 2;
}

TEST(FolderWatch, NoticesChangesOfFiles) {
    const TemporaryFolder folder;
    FolderWatch watch(folder.path());
    EXPECT_EQ(watch.problem(), "");
    EXPECT_FALSE(hasEvents(watch));
    // For changes before it was made.
    EXPECT_TRUE(isDueSoon(watch));
    watch.look();
    EXPECT_FALSE(isDueSoon(watch));
    folder.write("a.toml", "");
    EXPECT_TRUE(hasEvents(watch));
    watch.readEvents();
    EXPECT_FALSE(hasEvents(watch));
    EXPECT_TRUE(isDueSoon(watch));
    watch.look();
    EXPECT_FALSE(isDueSoon(watch));
    std::filesystem::rename(folder.path() / "a.toml", folder.path() / "b.toml");
    EXPECT_TRUE(hasEvents(watch));
}

TEST(FolderWatch, FollowsThePathToAnotherFolder) {
    const TemporaryFolder folder;
    const std::filesystem::path path = folder.path() / "conf.d";
    std::filesystem::create_directory(path);
    FolderWatch watch(path);
    std::filesystem::remove(path);
    EXPECT_TRUE(hasEvents(watch));
    watch.readEvents();
    watch.look();
    EXPECT_NE(watch.problem(), "");
    std::filesystem::create_directory(path);
    watch.look();
    watch.readEvents();
    EXPECT_EQ(watch.problem(), "");
    folder.write("conf.d/a.toml", "");
    EXPECT_TRUE(hasEvents(watch));
}

}  // namespace
}  // namespace vesk::controller
