#include "metrics/metrics_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "http_request.h"
#include "reports.h"

namespace vesk::controller {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class MetricsServerTest : public testing::Test {
 protected:
    MetricsServer server_{"127.0.0.1", 0, true};

    std::string get(const std::string& path) const { return ask("GET", path, server_.port()); }
};

TEST_F(MetricsServerTest, ServesThePresentPage) {
    server_.childUp(true);
    server_.setFlows(3, 2);
    server_.countRestart();
    server_.update(parsed(fullReport), {{16, "alice"}});
    const std::string answer = get("/metrics");
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(answer, HasSubstr("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
    EXPECT_THAT(answer, EndsWith("\r\n\r\n" + server_.page()));
    for (const char* line : {"vesk_up 1", "vesk_flows_declared 3", "vesk_flows_active 2",
                             "vesk_restarts_total 1", "vesk_downstream_received_datagrams_total 50",
                             "vesk_upstream_received_datagrams_total 300",
                             "vesk_flow_sent_datagrams_total{flow=\"alice\",label=\"0x10\"} 101"}) {
        EXPECT_THAT(answer, HasSubstr("\n" + std::string(line) + "\n"));
    }
}

TEST_F(MetricsServerTest, ReportsWhetherTheChildIsUp) {
    EXPECT_THAT(get("/healthz"), StartsWith("HTTP/1.1 503 "));
    server_.childUp(true);
    EXPECT_THAT(get("/healthz"), StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(get("/healthz"), EndsWith("\r\n\r\nok\n"));
    server_.childUp(false);
    EXPECT_THAT(get("/healthz"), StartsWith("HTTP/1.1 503 "));
}

TEST_F(MetricsServerTest, CountsReloadsByOutcome) {
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_last_reload_successful 1\n"));
    server_.countReload(ReloadOutcome::addressRefused);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_reloads_total{outcome=\"address_refused\"} 1\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_last_reload_successful 0\n"));
    server_.countReload(ReloadOutcome::fileRefused);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_reloads_total{outcome=\"file_refused\"} 1\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_last_reload_successful 0\n"));
    server_.countReload(ReloadOutcome::done);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_reloads_total{outcome=\"done\"} 1\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_last_reload_successful 1\n"));
}

TEST_F(MetricsServerTest, ReportsWhyItIsNotReady) {
    const auto expect = [&](const char* status, const std::string& text) {
        EXPECT_THAT(get("/ready"), StartsWith("HTTP/1.1 " + std::string(status)));
        EXPECT_THAT(get("/ready"), EndsWith("\r\n\r\n" + text + "\n"));
    };
    expect("503", "the forwarder is not running");
    server_.childUp(true);
    expect("503", "the forwarder is being set up");
    server_.setStage(Stage::settled);
    expect("503", "the forwarder does not listen");
    server_.setListening(true, false);
    expect("503", "the forwarder does not listen to other instances");
    server_.setListening(true, true);
    expect("200", "ready");
    server_.setListening(true, std::nullopt);
    expect("200", "ready");
    server_.setStage(Stage::draining);
    expect("503", "the forwarder is about to end");
    EXPECT_THAT(get("/healthz"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(MetricsServerTest, RefusesOtherPaths) {
    for (const char* path : {"/", "/metrics/more", "/metricsmore", "/healthz/", "/etc/passwd",
                             "/../../../../etc/passwd"}) {
        EXPECT_THAT(get(path), StartsWith("HTTP/1.1 404 ")) << path;
    }
}

TEST_F(MetricsServerTest, AnswersHeadWithoutABodyAndRefusesOtherMethods) {
    EXPECT_THAT(ask("HEAD", "/metrics", server_.port()), StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(ask("HEAD", "/metrics", server_.port()), EndsWith("\r\n\r\n"));
    EXPECT_THAT(ask("POST", "/metrics", server_.port()), StartsWith("HTTP/1.1 405 "));
    EXPECT_THAT(ask("POST", "/metrics", server_.port()), HasSubstr("Allow: GET, HEAD\r\n"));
}

TEST_F(MetricsServerTest, KeepsItsCountsWithANewChild) {
    server_.childUp(true);
    server_.update(parsed(fullReport), {});
    server_.childUp(true);
    server_.update(parsed(fullReport), {});
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_downstream_received_datagrams_total 50\n"));
    server_.childUp(false);
    // A late report of the old child.
    server_.update(parsed(fullReport), {});
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_downstream_received_datagrams_total 50\n"));
    server_.childUp(true);
    server_.update(parsed(fullReport), {});
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_downstream_received_datagrams_total 100\n"));
}

TEST_F(MetricsServerTest, OmitsFiguresOfAChildThatHasEnded) {
    KernelFigures figures;
    figures.drops = {1, 2, 3};
    figures.descriptors = Room{5, 6};
    figures.ports = Room{7, 8};
    server_.childUp(true);
    server_.setKernelFigures(figures);
    server_.count(LogEvent::hmacFailure);
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_descriptors_left 6\n"));
    server_.childUp(false);
    EXPECT_THAT(server_.page(), Not(HasSubstr("vesk_descriptors")));
    EXPECT_THAT(server_.page(), Not(HasSubstr("vesk_ephemeral")));
    EXPECT_THAT(server_.page(),
                HasSubstr("\nvesk_udp_dropped_datagrams_total{side=\"upstream\"} 3\n"));
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_hmac_failures_total 1\n"));
}

TEST_F(MetricsServerTest, LosesNoCountsDuringRequests) {
    constexpr int reports = 200;
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    readers.reserve(2);
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            do {
                EXPECT_THAT(get("/metrics"), StartsWith("HTTP/1.1 200 "));
            } while (!done);
        });
    }
    Report report;
    report.downstream.emplace();
    server_.childUp(true);
    for (int i = 0; i < reports; ++i) {
        ++report.downstream->received;
        server_.update(report, {});
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_THAT(server_.page(), HasSubstr("\nvesk_downstream_received_datagrams_total 200\n"));
}

// Signals for the controller must not be delivered to these threads.
TEST_F(MetricsServerTest, ItsThreadsBlockSignals) {
    std::size_t others = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        if (thread.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::ifstream status(thread.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                const auto blocked =
                    std::stoull(line.substr(line.find_first_of('\t')), nullptr, 16);
                for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGCHLD}) {
                    EXPECT_TRUE(blocked >> (signal - 1) & 1) << signal;
                }
                ++others;
            }
        }
    }
    EXPECT_GE(others, 2U);
}

}  // namespace
}  // namespace vesk::controller
