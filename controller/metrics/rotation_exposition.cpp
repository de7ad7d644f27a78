#include "metrics/rotation_exposition.h"

#include <utility>

#include "config/label_text.h"

namespace vesk::controller {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;

Labels labelsOf(const RotationFigures& rotation) {
    return {{"flow", rotation.name}, {"label", labelText(rotation.label)}};
}

Labels labelsOf(const RotationFigures& rotation, std::uint32_t label, const char* generation) {
    return {{"flow", rotation.name}, {"generation", generation}, {"label", labelText(label)}};
}

double secondsSinceEpoch(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

}  // namespace

void addRotations(Families& families, const std::vector<RotationFigures>& rotations) {
    if (rotations.empty()) {
        return;
    }
    MetricFamily received{"vesk_rotation_received_datagrams_total",
                          "Datagrams from peers that passed the check, of a flow that has a next, "
                          "by generation: current, next.",
                          MetricType::Counter,
                          {}};
    MetricFamily since{"vesk_rotation_start_timestamp_seconds",
                       "When the controller found the next of the flow, in seconds since 1970.",
                       MetricType::Gauge,
                       {}};
    MetricFamily deleted{"vesk_rotation_old_label_deleted",
                         "1 once the flow's old label was deleted because it was silent, otherwise "
                         "0. Make next the flow itself in the file.",
                         MetricType::Gauge,
                         {}};
    for (const RotationFigures& one : rotations) {
        received.metric.push_back(counter(one.received, labelsOf(one, one.label, "current")));
        received.metric.push_back(counter(one.nextReceived, labelsOf(one, one.nextLabel, "next")));
        since.metric.push_back(gauge(secondsSinceEpoch(one.since), labelsOf(one)));
        deleted.metric.push_back(gauge(one.deleted ? 1 : 0, labelsOf(one)));
    }
    families.push_back(std::move(received));
    families.push_back(std::move(since));
    families.push_back(std::move(deleted));
}

}  // namespace vesk::controller
