// The metrics of the datagram counters of a forwarder's three sides. Used by metrics/exposition for
// the sums and by metrics/instance_exposition for each instance.
#pragma once

#include <array>

#include "metrics/families.h"
#include "metrics/report.h"

namespace vesk::controller {

using SocketMetric = FigureMetric<DatagramCounters>;

inline constexpr std::array<SocketMetric, 4> downstreamMetrics{{
    {&DatagramCounters::received, "vesk_downstream_received_datagrams_total",
     "Datagrams received from peers."},
    {&DatagramCounters::receiveErrors, "vesk_downstream_receive_errors_total",
     "Datagrams from peers that were refused: framing, label, socket or HMAC."},
    {&DatagramCounters::sent, "vesk_downstream_sent_datagrams_total",
     "Always 0: replies are counted upstream, with their flow."},
    {&DatagramCounters::dropped, "vesk_downstream_dropped_datagrams_total",
     "Always 0: replies are counted upstream, with their flow."},
}};

inline constexpr std::array<SocketMetric, 6> lateralMetrics{{
    {&DatagramCounters::received, "vesk_lateral_received_datagrams_total",
     "Datagrams received from other instances."},
    {&DatagramCounters::receiveErrors, "vesk_lateral_receive_errors_total",
     "Datagrams from other instances that were refused."},
    {&DatagramCounters::sent, "vesk_lateral_sent_datagrams_total",
     "Datagrams handed to the instance that owns their label."},
    {&DatagramCounters::dropped, "vesk_lateral_dropped_datagrams_total",
     "Datagrams and replies that could not be handed to another instance."},
    {&DatagramCounters::repliesSent, "vesk_lateral_sent_replies_total",
     "Replies returned by other instances and sent to their peer."},
    {&DatagramCounters::repliesDropped, "vesk_lateral_dropped_replies_total",
     "Replies returned by other instances that could not be sent to their peer."},
}};

inline constexpr std::array<SocketMetric, 6> upstreamMetrics{{
    {&DatagramCounters::received, "vesk_upstream_received_datagrams_total",
     "Replies received from upstream services, all flows."},
    {&DatagramCounters::receiveErrors, "vesk_upstream_receive_errors_total",
     "Replies refused or under another flow's label, and failed receive calls, all flows."},
    {&DatagramCounters::sent, "vesk_upstream_sent_datagrams_total",
     "Datagrams sent to upstream services, all flows."},
    {&DatagramCounters::dropped, "vesk_upstream_dropped_datagrams_total",
     "Datagrams that could not be signed or sent upstream, all flows."},
    {&DatagramCounters::repliesSent, "vesk_upstream_sent_replies_total",
     "Replies sent to peers or returned to another instance, all flows."},
    {&DatagramCounters::repliesDropped, "vesk_upstream_dropped_replies_total",
     "Replies that could not be signed or sent, all flows."},
}};

}  // namespace vesk::controller
