#include "service/rotations.h"

#include <algorithm>

#include "config/instance_configurations.h"

namespace vesk::controller {

namespace {

LabelTraffic trafficOf(const TrafficByLabel& traffic, std::uint32_t label) {
    const auto found = traffic.find(label);
    return found == traffic.end() ? LabelTraffic() : found->second;
}

}  // namespace

/// The silence counts from the later of two moments: the old label was used for the last time, the
/// next one for the first time. Each instance that has the old label must have reported after that.
bool Rotations::Rotation::isSilent() const {
    if (figures.deleted || silence == std::chrono::seconds::zero() || !firstUseOfNext) {
        return false;
    }
    const Clock::time_point end = std::max(lastUse, *firstUseOfNext) + silence;
    return std::ranges::all_of(reports, [&](const auto& report) { return report.second >= end; });
}

/// What may change while both labels stay the same.
void Rotations::followFile(Rotation& rotation, const Flow& flow, const Configuration& file) {
    rotation.figures.name = flow.name;
    rotation.silence = flow.next->rotate.value_or(file.supervision.rotate);
    std::map<std::size_t, Clock::time_point> reports;
    const auto add = [&](std::uint32_t prefix) {
        const std::size_t instance = instanceOf(file, prefix);
        const auto before = rotation.reports.find(instance);
        reports[instance] = before == rotation.reports.end() ? Clock::time_point() : before->second;
    };
    add(flow.label >> prefixBits);
    if (flow.auxiliary) {
        add(flow.auxiliary->prefix);
    }
    rotation.reports = std::move(reports);
}

Rotations::News Rotations::take(Configuration& configuration, Clock::time_point now,
                                std::chrono::system_clock::time_point today) {
    News news;
    auto before = std::exchange(rotations_, {});
    for (const auto& [label, flow] : configuration.flows) {
        // A fragment with an error may have lost one of the two labels to another fragment.
        if (!flow.next || !configuration.flows.contains(flow.next->label)) {
            continue;
        }
        const std::pair labels{label, flow.next->label};
        Rotation& rotation = rotations_[labels];
        if (const auto known = before.find(labels); known != before.end()) {
            rotation = std::move(known->second);
        } else {
            rotation.figures = {flow.name, label, flow.next->label, today, false, 0, 0};
            rotation.lastUse = now;
            news.begun.push_back(flow.name);
        }
        followFile(rotation, flow, configuration);
        if (rotation.figures.deleted) {
            news.stillInFile.push_back(flow.name);
        }
    }
    for (const auto& [labels, rotation] : rotations_) {
        if (rotation.figures.deleted) {
            configuration.flows.erase(labels.first);
        }
    }
    return news;
}

std::vector<RotatedFlow> Rotations::observe(const TrafficByLabel& traffic, const Reporter& reporter,
                                            Clock::time_point now) {
    std::vector<RotatedFlow> firstUsed;
    for (auto& [labels, rotation] : rotations_) {
        const LabelTraffic old = trafficOf(traffic, labels.first);
        const LabelTraffic next = trafficOf(traffic, labels.second);
        rotation.figures.received += old.requests;
        rotation.figures.nextReceived += next.requests;
        const bool hasOld = traffic.contains(labels.first);
        if (old != LabelTraffic() || (hasOld && !reporter.reachable)) {
            rotation.lastUse = now;
        }
        if (next.requests != 0 && !rotation.firstUseOfNext) {
            rotation.firstUseOfNext = now;
            firstUsed.push_back(rotation.flow());
        }
        const auto report = reporter.instance && hasOld ? rotation.reports.find(*reporter.instance)
                                                        : rotation.reports.end();
        if (report != rotation.reports.end()) {
            report->second = now;
        }
    }
    return firstUsed;
}

std::vector<SilentLabel> Rotations::takeSilent() {
    std::vector<SilentLabel> silent;
    for (auto& [labels, rotation] : rotations_) {
        if (rotation.isSilent()) {
            rotation.figures.deleted = true;
            silent.push_back({rotation.flow(), rotation.silence});
        }
    }
    return silent;
}

std::vector<RotationFigures> Rotations::figures() const {
    std::vector<RotationFigures> all;
    all.reserve(rotations_.size());
    for (const auto& [labels, rotation] : rotations_) {
        all.push_back(rotation.figures);
    }
    return all;
}

}  // namespace vesk::controller
