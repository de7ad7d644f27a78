#include "metrics/exposition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <set>

namespace vesk::controller {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string text(const Totals& totals, const ControllerState& state) {
    return prometheus::TextSerializer().Serialize(describeMetrics(totals, state));
}

ControllerState running() {
    ControllerState state;
    state.childUp = true;
    state.restarts = 2;
    state.flowsDeclared = 7;
    state.flowsActive = 6;
    state.lastReport = std::chrono::system_clock::time_point(std::chrono::milliseconds(1500));
    return state;
}

TEST(ExpositionTest, ShowsEachCounterOfEachSocketUnderItsOwnName) {
    Totals totals;
    totals.downstream = {1, 2, 3, 4, 0, 0};
    totals.upstream = {11, 12, 13, 14, 15, 16};
    totals.lateral = {21, 22, 23, 24, 25, 26};
    const std::string page = text(totals, running());
    for (const char* line :
         {"vesk_downstream_received_datagrams_total 1", "vesk_downstream_sent_datagrams_total 2",
          "vesk_downstream_receive_errors_total 3", "vesk_downstream_dropped_datagrams_total 4",
          "vesk_upstream_received_datagrams_total 11", "vesk_upstream_sent_datagrams_total 12",
          "vesk_upstream_receive_errors_total 13", "vesk_upstream_dropped_datagrams_total 14",
          "vesk_upstream_sent_replies_total 15", "vesk_upstream_dropped_replies_total 16",
          "vesk_lateral_received_datagrams_total 21", "vesk_lateral_sent_datagrams_total 22",
          "vesk_lateral_receive_errors_total 23", "vesk_lateral_dropped_datagrams_total 24",
          "vesk_lateral_sent_replies_total 25", "vesk_lateral_dropped_replies_total 26"}) {
        EXPECT_THAT(page, HasSubstr("\n" + std::string(line) + "\n"));
    }
}

TEST(ExpositionTest, ShowsTheFlowsByNameAndLabel) {
    Totals totals;
    totals.flows[0x10001] = {"al\"ice", {11, 12, 13, 14, 15, 16}, {}, 0};
    totals.flows[0x20001] = {"", {21, 22, 23, 24, 25, 26}, {}, 0};
    const std::string page = text(totals, running());
    const std::string alice = "{flow=\"al\\\"ice\",label=\"0x10001\"} ";
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_received_datagrams_total" + alice + "11\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_sent_datagrams_total" + alice + "12\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_receive_errors_total" + alice + "13\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_dropped_datagrams_total" + alice + "14\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_sent_replies_total" + alice + "15\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_dropped_replies_total" + alice + "16\n"));
    EXPECT_THAT(page,
                HasSubstr("\nvesk_flow_sent_datagrams_total{flow=\"\",label=\"0x20001\"} 22\n"));
}

TEST(ExpositionTest, ShowsWorkersAndPollEvents) {
    Totals totals;
    totals.workers = {{1, 2, 3}, {4, 5, 6}};
    totals.readEvents = 7;
    totals.writeEvents = 8;
    totals.errorEvents = 9;
    totals.armedSockets = -1;
    totals.flowSockets = 10;
    const std::string page = text(totals, running());
    EXPECT_THAT(page, HasSubstr("\nvesk_worker_wakeups_total{worker=\"0\"} 1\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_worker_queued_sockets_total{worker=\"1\"} 5\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_worker_received_datagrams_total{worker=\"1\"} 6\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_poll_read_events_total 7\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_poll_write_events_total 8\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_poll_error_events_total 9\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_poll_armed_sockets -1\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_sockets 10\n"));
}

TEST(ExpositionTest, ShowsTheController) {
    const std::string page = text(Totals(), running());
    EXPECT_THAT(page, HasSubstr("\nvesk_build_info{version=\"" VESK_VERSION "\"} 1\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_up 1\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_restarts_total 2\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flows_declared 7\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flows_active 6\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_last_report_timestamp_seconds 1.5\n"));
}

TEST(ExpositionTest, ShowsWhetherTheForwarderListens) {
    ControllerState state = running();
    state.listening = true;
    EXPECT_THAT(text(Totals(), state), HasSubstr("\nvesk_listening 1\n"));
    EXPECT_THAT(text(Totals(), state), Not(HasSubstr("vesk_lateral_listening")));
    state.lateralListening = true;
    EXPECT_THAT(text(Totals(), state), HasSubstr("\nvesk_lateral_listening 1\n"));
    state.childUp = false;
    EXPECT_THAT(text(Totals(), state), HasSubstr("\nvesk_listening 0\n"));
    EXPECT_THAT(text(Totals(), state), HasSubstr("\nvesk_lateral_listening 0\n"));
}

// Counters keep the counts of a child that has ended; gauges are 0.
TEST(ExpositionTest, ResetsGaugesOfAChildThatIsDown) {
    Totals totals;
    totals.upstream.received = 11;
    totals.armedSockets = 4;
    totals.flowSockets = 5;
    ControllerState state = running();
    state.childUp = false;
    const std::string page = text(totals, state);
    EXPECT_THAT(page, HasSubstr("\nvesk_up 0\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flows_declared 7\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flows_active 0\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_poll_armed_sockets 0\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_sockets 0\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_upstream_received_datagrams_total 11\n"));
}

TEST(ExpositionTest, CountersStartAtZeroWithoutAReport) {
    const std::string page = text(Totals(), ControllerState());
    EXPECT_THAT(page, HasSubstr("\nvesk_lateral_received_datagrams_total 0\n"));
    EXPECT_THAT(page, Not(HasSubstr("vesk_last_report_timestamp_seconds")));
    EXPECT_THAT(page, Not(HasSubstr("vesk_flow_sent_datagrams_total")));
}

/// Figures that all differ.
KernelFigures kernelFigures() {
    KernelFigures figures;
    figures.sockets = {{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}};
    figures.drops = {10, 11, 12};
    figures.flows.emplace();
    figures.ports = Room{13, 14};
    figures.descriptors = Room{15, 16};
    figures.conntrack = Conntrack{17, 18};
    figures.ipv4 = BufferErrors{19, 20};
    figures.ipv6 = BufferErrors{21, 22};
    return figures;
}

TEST(ExpositionTest, ShowsTheKernelsFigures) {
    ControllerState state = running();
    state.kernel = kernelFigures();
    const std::string page = text(Totals(), state);
    for (const char* line :
         {"vesk_udp_sockets{side=\"downstream\"} 1",
          "vesk_udp_receive_queue_bytes{side=\"downstream\"} 2",
          "vesk_udp_send_queue_bytes{side=\"downstream\"} 3",
          "vesk_udp_receive_queue_bytes{side=\"lateral\"} 5",
          "vesk_udp_sockets{side=\"upstream\"} 7",
          "vesk_udp_dropped_datagrams_total{side=\"downstream\"} 10",
          "vesk_udp_dropped_datagrams_total{side=\"lateral\"} 11",
          "vesk_udp_dropped_datagrams_total{side=\"upstream\"} 12", "vesk_ephemeral_ports_used 13",
          "vesk_ephemeral_ports_left 14", "vesk_descriptors_used 15", "vesk_descriptors_left 16",
          "vesk_conntrack_entries 17", "vesk_conntrack_entries_limit 18",
          "vesk_host_udp_receive_buffer_errors_total{family=\"ipv4\"} 19",
          "vesk_host_udp_send_buffer_errors_total{family=\"ipv4\"} 20",
          "vesk_host_udp_receive_buffer_errors_total{family=\"ipv6\"} 21",
          "vesk_host_udp_send_buffer_errors_total{family=\"ipv6\"} 22"}) {
        EXPECT_THAT(page, HasSubstr("\n" + std::string(line) + "\n"));
    }
}

// A missing figure must not be shown as 0.
TEST(ExpositionTest, OmitsMissingFiguresOfTheKernel) {
    const std::string page = text(Totals(), running());
    EXPECT_THAT(page, HasSubstr("\nvesk_udp_dropped_datagrams_total{side=\"upstream\"} 0\n"));
    for (const char* name : {"vesk_udp_sockets", "vesk_udp_receive", "vesk_udp_send",
                             "vesk_ephemeral", "vesk_descriptors", "vesk_conntrack", "vesk_host"}) {
        EXPECT_THAT(page, Not(HasSubstr(name)));
    }
}

TEST(ExpositionTest, ShowsTheFlowsSocketsIfTheyAreKnown) {
    Totals totals;
    totals.flows[0x10001] = {"alice", {}, {1, 2, 3}, 4};
    ControllerState state = running();
    EXPECT_THAT(text(totals, state), Not(HasSubstr("vesk_flow_udp")));
    state.kernel.flows.emplace();
    const std::string page = text(totals, state);
    const std::string alice = "{flow=\"alice\",label=\"0x10001\"} ";
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_udp_dropped_datagrams_total" + alice + "4\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_flow_udp_receive_queue_bytes" + alice + "2\n"));
}

TEST(ExpositionTest, ShowsTheCountsOfLogEvents) {
    ControllerState state = running();
    state.events = {1, 2, 3};
    const std::string page = text(Totals(), state);
    EXPECT_THAT(page, HasSubstr("\nvesk_hmac_failures_total 1\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_endpoints_created_total 2\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_endpoints_deleted_by_error_total 3\n"));
}

TEST(ExpositionTest, NamesFollowTheConventions) {
    Totals totals;
    totals.flows[5] = {"alice", {}, {}, 0};
    totals.workers.resize(1);
    ControllerState state = running();
    state.kernel = kernelFigures();
    std::set<std::string> names;
    for (const prometheus::MetricFamily& family : describeMetrics(totals, state)) {
        EXPECT_TRUE(names.insert(family.name).second) << family.name << " is shown twice";
        EXPECT_TRUE(family.name.starts_with("vesk_")) << family.name;
        EXPECT_EQ(family.name.ends_with("_total"), family.type == prometheus::MetricType::Counter)
            << family.name;
        EXPECT_TRUE(family.help.ends_with(".")) << family.name;
    }
}

TEST(ExpositionTest, LargeNumbersAreExact) {
    Totals totals;
    totals.downstream.received = 9007199254740992;
    EXPECT_THAT(text(totals, running()),
                HasSubstr("vesk_downstream_received_datagrams_total 9007199254740992\n"));
}

TEST(ExpositionTest, ShowsBothGenerationsOfARotation) {
    ControllerState state = running();
    EXPECT_THAT(text({}, state), Not(HasSubstr("vesk_rotation")));
    state.rotations = {{"alice", 0x10001, 0x10002,
                        std::chrono::system_clock::time_point(std::chrono::milliseconds(1500)),
                        false, 7, 8}};
    const std::string page = text({}, state);
    const std::string received =
        "\nvesk_rotation_received_datagrams_total{flow=\"alice\",generation=";
    EXPECT_THAT(page, HasSubstr(received + "\"current\",label=\"0x10001\"} 7\n"));
    EXPECT_THAT(page, HasSubstr(received + "\"next\",label=\"0x10002\"} 8\n"));
    const std::string flow = "{flow=\"alice\",label=\"0x10001\"} ";
    EXPECT_THAT(page, HasSubstr("\nvesk_rotation_start_timestamp_seconds" + flow + "1.5\n"));
    EXPECT_THAT(page, HasSubstr("\nvesk_rotation_old_label_deleted" + flow + "0\n"));
    state.rotations.front().deleted = true;
    EXPECT_THAT(text({}, state), HasSubstr("\nvesk_rotation_old_label_deleted" + flow + "1\n"));
}

}  // namespace
}  // namespace vesk::controller
