#include "service/rotation_traffic.h"

#include <utility>

#include "config/instance_configurations.h"
#include "metrics/report_totals.h"

namespace vesk::controller {

void RotationTraffic::take(const std::map<std::uint32_t, Flow>& flows) {
    labels_.clear();
    prefixes_.clear();
    declared_.clear();
    for (const auto& [label, flow] : flows) {
        if (!flow.next && !flow.isNext) {
            continue;
        }
        labels_.insert(label);
        if (flow.auxiliary) {
            prefixes_.emplace(flow.auxiliary->prefix, label);
        }
    }
    if (!prefixes_.empty()) {
        for (const auto& [label, flow] : flows) {
            declared_.insert(label);
        }
    }
}

void RotationTraffic::restart() {
    last_.clear();
    restarted_ = true;
}

/// The watched label to which the socket of this label belongs; none if there is none.
std::optional<std::uint32_t> RotationTraffic::ownerOf(std::uint32_t label) const {
    if (labels_.contains(label)) {
        return label;
    }
    const auto prefix = prefixes_.find(label >> prefixBits);
    const bool auxiliary = prefix != prefixes_.end() && !declared_.contains(label);
    return auxiliary ? std::optional(prefix->second) : std::nullopt;
}

void RotationTraffic::observe(const Report& report) {
    if (labels_.empty()) {
        return;
    }
    if (!seen_) {
        seen_.emplace();
    }
    for (const std::uint32_t label : labels_) {
        seen_->labels.try_emplace(label);
    }
    seen_->isFirst = std::exchange(restarted_, false) || seen_->isFirst;
    std::map<std::uint32_t, DatagramCounters> now;
    for (const FlowRow& row : report.flows) {
        if (const std::optional<std::uint32_t> owner = ownerOf(row.label)) {
            now.emplace(row.label, row.counters);
            const DatagramCounters more = increase(last_[row.label], row.counters);
            LabelTraffic& traffic = seen_->labels[*owner];
            traffic.requests += more.sent + more.dropped;
            traffic.replies += more.repliesSent + more.repliesDropped;
        }
    }
    last_ = std::move(now);
}

std::optional<ObservedTraffic> RotationTraffic::read() {
    return std::exchange(seen_, std::nullopt);
}

}  // namespace vesk::controller
