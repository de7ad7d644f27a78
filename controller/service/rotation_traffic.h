// What the reports of one forwarder show about the labels of flows that have a `next`. Kept by
// service/instance; service/rotations decides by it when an old label is deleted.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "config/configuration.h"
#include "metrics/report.h"

namespace vesk::controller {

/// Datagrams of a declared label, its auxiliary flows included, since the report before. Only those
/// whose HMAC was right, so a stranger cannot make a label look used.
struct LabelTraffic {
    std::uint64_t requests = 0;  ///< from peers
    std::uint64_t replies = 0;   ///< to peers
    bool operator==(const LabelTraffic&) const = default;
};

using TrafficByLabel = std::map<std::uint32_t, LabelTraffic>;

struct ObservedTraffic {
    TrafficByLabel labels;  ///< all that are watched
    bool isFirst = false;   ///< it has the first report of a forwarder
};

class RotationTraffic {
 public:
    /// The flows of the forwarder from now on.
    void take(const std::map<std::uint32_t, Flow>& flows);

    /// The next report is that of a new forwarder, whose counters begin at 0.
    void restart();

    void observe(const Report& report);

    /// The traffic since the last call; none without a report since then, or if no label is
    /// watched.
    std::optional<ObservedTraffic> read();

 private:
    std::optional<std::uint32_t> ownerOf(std::uint32_t label) const;

    std::set<std::uint32_t> labels_;                   // that are watched
    std::map<std::uint32_t, std::uint32_t> prefixes_;  // auxiliary ones, with their label
    std::set<std::uint32_t> declared_;                 // all labels, if there are prefixes
    std::map<std::uint32_t, DatagramCounters> last_;   // of the sockets, by label
    bool restarted_ = true;
    std::optional<ObservedTraffic> seen_;
};

}  // namespace vesk::controller
