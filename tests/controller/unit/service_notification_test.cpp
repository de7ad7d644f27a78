#include "service/service_notification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using testing::MatchesRegex;

/// Plays the service manager.
class Manager {
 public:
    explicit Manager(const std::string& name) : socket_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    }

    std::string received() const {
        std::array<char, 1000> text{};
        const ssize_t got = recv(socket_.get(), text.data(), text.size(), MSG_DONTWAIT);
        return {text.data(), got < 0 ? 0 : static_cast<std::size_t>(got)};
    }

 private:
    UniqueFd socket_;
};

TEST(ServiceNotification, SendsEachState) {
    const TemporaryFolder folder;
    const std::string path = (folder.path() / "notify").string();
    const Manager manager(path);
    const ServiceNotification notification{path};
    notification.ready("2 flows");
    EXPECT_EQ(manager.received(), "READY=1\nSTATUS=2 flows");
    notification.reloading();
    EXPECT_THAT(manager.received(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
    notification.stopping("Draining");
    EXPECT_EQ(manager.received(), "STOPPING=1\nSTATUS=Draining");
    notification.status("waits");
    EXPECT_EQ(manager.received(), "STATUS=waits");
    notification.alive();
    EXPECT_EQ(manager.received(), "WATCHDOG=1");
}

TEST(ServiceNotification, SupportsAbstractNames) {
    const std::string name = "@vesk-test-" + std::to_string(getpid());
    const Manager manager(name);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ServiceNotification::fromEnvironment().status("abstract");
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(manager.received(), "STATUS=abstract");
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

TEST(ServiceNotification, IgnoresAMissingServiceManager) {
    ServiceNotification(std::nullopt).ready("unheard");
    ServiceNotification(std::string()).ready("unheard");
    ServiceNotification(std::string(200, 'x')).ready("unheard");
    ServiceNotification(std::string("/nowhere/notify")).ready("unheard");
}

}  // namespace
}  // namespace vesk::controller
