// Where the metrics are served, and how long.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "http_request.h"
#include "metrics/metrics_server.h"
#include "reports.h"

namespace vesk::controller {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(MetricsServerAddressTest, ServesOnIpv6) {
    if (!hasIpv6()) {
        GTEST_SKIP() << "this host has no IPv6 address ::1";
    }
    const MetricsServer server("::1", 0);
    EXPECT_THAT(ask("GET", "/metrics", server.port(), "::1"), HasSubstr("\nvesk_up 0\n"));
    const MetricsServer both("::", 0);
    EXPECT_THAT(ask("GET", "/metrics", both.port(), "::1"), HasSubstr("\nvesk_up 0\n"));
    EXPECT_THAT(ask("GET", "/metrics", both.port()), HasSubstr("\nvesk_up 0\n"));
    try {
        const MetricsServer second("::1", server.port());
        FAIL() << "two servers on one port";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "cannot serve metrics on [::1]:" + std::to_string(server.port()) +
                                    ": Address already in use");
    }
}

TEST(MetricsServerAddressTest, PublishesFlowsOnlyOnRequest) {
    MetricsServer server("127.0.0.1", 0);
    server.update(parsed(fullReport), {{16, "alice"}});
    EXPECT_THAT(server.page(), Not(HasSubstr("vesk_flow_sent")));
    EXPECT_THAT(server.page(), HasSubstr("\nvesk_upstream_sent_datagrams_total 302\n"));
}

TEST(MetricsServerAddressTest, ReportsWhyItCannotListen) {
    const MetricsServer first("127.0.0.1", 0);
    try {
        const MetricsServer second("127.0.0.1", first.port());
        FAIL() << "two servers on one port";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(
            error.what(),
            StartsWith("cannot serve metrics on 127.0.0.1:" + std::to_string(first.port()) + ": "));
        EXPECT_THAT(error.what(), Not(EndsWith(": ")));
    }
    EXPECT_THROW(MetricsServer("192.0.2.1", 0), std::runtime_error);
    EXPECT_THROW(MetricsServer("no address", 0), std::runtime_error);
}

TEST(MetricsServerAddressTest, CountsBeforeItCanServe) {
    MetricsServer server(false);
    server.countRestart();
    EXPECT_FALSE(server.serving());
    EXPECT_THROW(server.serve("192.0.2.1", 0), std::runtime_error);
    EXPECT_FALSE(server.serving());
    server.serve("127.0.0.1", 0);
    EXPECT_TRUE(server.serving());
    EXPECT_THAT(ask("GET", "/metrics", server.port()), HasSubstr("\nvesk_restarts_total 1\n"));
}

// The port can be used again at once.
TEST(MetricsServerAddressTest, StopsServingWhenDestroyed) {
    std::optional<MetricsServer> server;
    server.emplace("127.0.0.1", 0);
    const std::uint16_t port = server->port();
    ASSERT_THAT(ask("GET", "/healthz", port), StartsWith("HTTP/1.1 503 "));
    const auto began = std::chrono::steady_clock::now();
    server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(1));
    EXPECT_EQ(connectTo("127.0.0.1", port).get(), -1);
    EXPECT_NO_THROW(server.emplace("127.0.0.1", port));
}

}  // namespace
}  // namespace vesk::controller
