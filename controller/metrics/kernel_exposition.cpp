#include "metrics/kernel_exposition.h"

#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace vesk::controller {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr std::array<FigureMetric<SocketFigures>, 3> socketMetrics{{
    {&SocketFigures::sockets, "vesk_udp_sockets",
     "UDP sockets of the forwarder that have a port, by side."},
    {&SocketFigures::receiveQueue, "vesk_udp_receive_queue_bytes",
     "Receive buffer used by waiting datagrams, in bytes, all sockets of a side. A socket has "
     "room for 1048576 bytes, or less if net.core.rmem_max is lower: set that to 1048576."},
    {&SocketFigures::sendQueue, "vesk_udp_send_queue_bytes",
     "Send buffer used by waiting datagrams, in bytes, all sockets of a side. A socket has room "
     "for twice net.core.wmem_max at most: set that to 262144."},
}};

constexpr std::array<FigureMetric<Room>, 2> portMetrics{{
    {&Room::used, "vesk_ephemeral_ports_used",
     "Ephemeral ports on which the host has a UDP socket. Widen net.ipv4.ip_local_port_range."},
    {&Room::left, "vesk_ephemeral_ports_left",
     "Ephemeral ports without a UDP socket, not counting reserved ones. At 0 new flows cannot "
     "send: "
     "widen net.ipv4.ip_local_port_range or shorten net.ipv4.ip_local_reserved_ports."},
}};

constexpr std::array<FigureMetric<Room>, 2> descriptorMetrics{{
    {&Room::used, "vesk_descriptors_used",
     "Descriptors that the forwarder has open, two for each flow with a socket. Raise LimitNOFILE "
     "of the unit."},
    {&Room::left, "vesk_descriptors_left",
     "Descriptors that the forwarder can still open. Below 2 no flow can open a socket: raise "
     "LimitNOFILE of the unit."},
}};

constexpr std::array<FigureMetric<Conntrack>, 2> conntrackMetrics{{
    {&Conntrack::entries, "vesk_conntrack_entries",
     "Connections that the kernel tracks. Exempt Vesk's ports with a notrack rule."},
    {&Conntrack::limit, "vesk_conntrack_entries_limit",
     "Connections that the kernel can track; above that it drops datagrams of new ones. Raise "
     "net.netfilter.nf_conntrack_max."},
}};

struct EventMetric {
    LogEvent event;
    const char* name;
    const char* help;
};

constexpr std::array<EventMetric, 3> eventMetrics{{
    {LogEvent::hmacFailure, "vesk_hmac_failures_total",
     "Datagrams from peers with a wrong HMAC, counted from log lines without a level, which are "
     "written at every log_level. Compare from_peer of the flow with the peer's key."},
    {LogEvent::endpointCreated, "vesk_endpoints_created_total",
     "Sockets that flows have opened, counted from the log: only at log_level info or above. If "
     "there are many, raise cleanup_interval."},
    {LogEvent::endpointDeletedByError, "vesk_endpoints_deleted_by_error_total",
     "Flows' sockets that were closed after a network error, counted from the log at every "
     "log_level. Check that upstream of the flow, and its peer, can be reached."},
}};

void addSides(Families& families, const KernelFigures& figures) {
    MetricFamily drops{"vesk_udp_dropped_datagrams_total",
                       "Datagrams that the kernel dropped at sockets of the forwarder, mostly "
                       "because the receive buffer was full, by side. Set net.core.rmem_max to "
                       "1048576; then divide the labels among instances with [lateral].",
                       MetricType::Counter,
                       {}};
    for (std::size_t side = 0; side < sides; ++side) {
        drops.metric.push_back(counter(figures.drops.at(side), {{"side", sideNames.at(side)}}));
    }
    families.push_back(std::move(drops));
    if (!figures.sockets) {
        return;
    }
    std::vector<LabelledFigures<SocketFigures>> sockets;
    for (std::size_t side = 0; side < sides; ++side) {
        sockets.push_back({figures.sockets->at(side), {{"side", sideNames.at(side)}}});
    }
    addTable(families, MetricType::Gauge, socketMetrics, sockets);
}

void addHostErrors(Families& families, const KernelFigures& figures) {
    MetricFamily receive{"vesk_host_udp_receive_buffer_errors_total",
                         "Datagrams that found a receive buffer full, all UDP sockets of the host, "
                         "since it started. Raise net.core.rmem_max or net.ipv4.udp_mem.",
                         MetricType::Counter,
                         {}};
    MetricFamily send{"vesk_host_udp_send_buffer_errors_total",
                      "Datagrams that found a send buffer full, all UDP sockets of the host, since "
                      "it started. Raise net.core.wmem_max or the device's queue (txqueuelen).",
                      MetricType::Counter,
                      {}};
    const auto addFamily = [&](const std::optional<BufferErrors>& errors, const char* name) {
        if (errors) {
            receive.metric.push_back(counter(errors->receive, {{"family", name}}));
            send.metric.push_back(counter(errors->send, {{"family", name}}));
        }
    };
    addFamily(figures.ipv4, "ipv4");
    addFamily(figures.ipv6, "ipv6");
    if (!receive.metric.empty()) {
        families.push_back(std::move(receive));
        families.push_back(std::move(send));
    }
}

}  // namespace

void addKernelFigures(Families& families, const KernelFigures& figures) {
    addSides(families, figures);
    const auto addPresent = [&](const auto& metrics, const auto& present) {
        if (present) {
            addTable(families, MetricType::Gauge, metrics, *present);
        }
    };
    addPresent(portMetrics, figures.ports);
    addPresent(descriptorMetrics, figures.descriptors);
    addPresent(conntrackMetrics, figures.conntrack);
    addHostErrors(families, figures);
}

void addLogEvents(Families& families, const LogEventCounts& counts) {
    for (const EventMetric& metric : eventMetrics) {
        addCounter(families, metric.name, metric.help, counts.at(placeOf(metric.event)));
    }
}

}  // namespace vesk::controller
