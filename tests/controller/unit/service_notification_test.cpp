#include "service/service_notification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "notification_socket.h"
#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using testing::MatchesRegex;

TEST(ServiceNotification, SendsEachState) {
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "notify").string();
    const NotificationSocket manager(path);
    const ServiceNotification notification{path};
    notification.ready("2 flows");
    EXPECT_EQ(manager.receive().text, "READY=1\nSTATUS=2 flows");
    notification.reloading();
    EXPECT_THAT(manager.receive().text, MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
    notification.stopping("Draining");
    EXPECT_EQ(manager.receive().text, "STOPPING=1\nSTATUS=Draining");
    notification.status("waits");
    EXPECT_EQ(manager.receive().text, "STATUS=waits");
    notification.alive();
    EXPECT_EQ(manager.receive().text, "WATCHDOG=1");
}

TEST(ServiceNotification, SupportsAbstractNames) {
    const std::string name = "@vesk-test-" + std::to_string(getpid());
    const NotificationSocket manager(name);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ServiceNotification::fromEnvironment().status("abstract");
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(manager.receive().text, "STATUS=abstract");
}

TEST(ServiceNotification, ReadsTheWatchdogInterval) {
    using std::chrono::microseconds;
    const auto interval = [](const char* microsecondsText, const std::string& process) {
        setenv("WATCHDOG_USEC", microsecondsText, 1);
        setenv("WATCHDOG_PID", process.c_str(), 1);
        const auto result = ServiceNotification::fromEnvironment().watchdogInterval();
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        return result;
    };
    EXPECT_EQ(interval("3000000", std::to_string(getpid())), microseconds(3000000));
    // Meant for another process.
    EXPECT_EQ(interval("3000000", std::to_string(getppid())), std::nullopt);
    EXPECT_EQ(interval("soon", std::to_string(getpid())), std::nullopt);
    EXPECT_EQ(ServiceNotification::fromEnvironment().watchdogInterval(), std::nullopt);
}

TEST(ServiceNotification, StoresDescriptors) {
    const TemporaryFolder folder;
    const NotificationSocket manager((folder.path() / "notify").string());
    const ServiceNotification notification{manager.name()};
    notification.store("ours", STDIN_FILENO);
    const NotificationSocket::Message stored = manager.receive();
    EXPECT_EQ(stored.text, "FDSTORE=1\nFDNAME=ours");
    EXPECT_TRUE(stored.descriptor);
    notification.removeStored("ours");
    const NotificationSocket::Message removed = manager.receive();
    EXPECT_EQ(removed.text, "FDSTOREREMOVE=1\nFDNAME=ours");
    EXPECT_FALSE(removed.descriptor);
}

TEST(ServiceNotification, IgnoresAMissingServiceManager) {
    ServiceNotification(std::nullopt).ready("unheard");
    ServiceNotification(std::string()).ready("unheard");
    ServiceNotification(std::string(200, 'x')).ready("unheard");
    ServiceNotification(std::string("/nowhere/notify")).ready("unheard");
}

}  // namespace
}  // namespace vesk::controller
