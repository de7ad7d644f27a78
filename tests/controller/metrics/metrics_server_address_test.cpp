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

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// Why metrics cannot be served there. The test fails if they can.
std::string refusalToServe(const std::string& host, std::uint16_t port) {
    try {
        const MetricsServer server(host, port);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    ADD_FAILURE() << "metrics are served on " << host;
    return "";
}

TEST(MetricsServerAddressTest, ServesOnIpv6) {
    if (!hasIpv6()) {
        GTEST_SKIP() << "this host has no IPv6 address ::1";
    }
    const MetricsServer server("::1", 0);
    EXPECT_THAT(ask("GET", "/metrics", server.port(), "::1"), HasSubstr("\nvesk_up 0\n"));
    const MetricsServer both("::", 0);
    EXPECT_THAT(ask("GET", "/metrics", both.port(), "::1"), HasSubstr("\nvesk_up 0\n"));
    EXPECT_THAT(ask("GET", "/metrics", both.port()), HasSubstr("\nvesk_up 0\n"));
    EXPECT_EQ(refusalToServe("::1", server.port()),
              "cannot serve metrics on [::1]:" + std::to_string(server.port()) +
                  ": Address already in use");
}

TEST(MetricsServerAddressTest, PublishesFlowsOnlyOnRequest) {
    MetricsServer server("127.0.0.1", 0);
    server.update(parsed(fullReport), {{16, "alice"}});
    EXPECT_THAT(server.page(), Not(HasSubstr("vesk_flow_sent")));
    EXPECT_THAT(server.page(), HasSubstr("\nvesk_upstream_sent_datagrams_total 302\n"));
}

TEST(MetricsServerAddressTest, ReportsWhyItCannotListen) {
    const MetricsServer first("127.0.0.1", 0);
    EXPECT_EQ(refusalToServe("127.0.0.1", first.port()),
              "cannot serve metrics on 127.0.0.1:" + std::to_string(first.port()) +
                  ": Address already in use");
    for (const char* host : {"192.0.2.1", "no address"}) {
        EXPECT_THAT(refusalToServe(host, 0),
                    StartsWith("cannot serve metrics on " + std::string(host) + ":0: "));
    }
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
