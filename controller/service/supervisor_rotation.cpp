// Deletes the old labels of flows whose peers have moved to the next label. The loop is in
// supervisor.cpp, the decision in rotations.cpp.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/findings.h"
#include "config/instance_configurations.h"
#include "config/label_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

namespace {

Findings findingsOf(const std::vector<std::string>& names) {
    Findings findings;
    for (const std::string& name : names) {
        findings.add(name);
    }
    return findings;
}

}  // namespace

/// To be called with what the file says before the instances get it.
void Supervisor::takeRotations(Configuration& configuration) {
    const Rotations::News news =
        rotations_.take(configuration, Clock::now(), std::chrono::system_clock::now());
    if (const Findings begun = findingsOf(news.begun); begun.any()) {
        log_.say(LogLevel::info, begun.counted("flow has", "flows have") +
                                     " a next label beside the present one: " + begun.examples());
    }
    if (const Findings still = findingsOf(news.stillInFile); still.any()) {
        log_.say(LogLevel::warn, still.counted("flow", "flows") +
                                     " in the file still with a label that was deleted, and that "
                                     "is valid again after a restart of the controller: " +
                                     still.examples());
    }
    publishRotations();
}

void Supervisor::watchRotations() {
    bool reported = false;
    for (Instance* const instance : allInstances()) {
        if (const std::optional<ObservedTraffic> traffic = instance->takeRotationTraffic()) {
            reported = true;
            observeRotations(*instance, *traffic);
        }
    }
    if (!reported) {
        return;
    }
    // The forwarders that are being replaced, or are to be, may have other flows.
    if (running() && !replacement_ && adopted() == 0) {
        deleteSilentLabels();
    }
    publishRotations();
}

void Supervisor::observeRotations(const Instance& instance, const ObservedTraffic& traffic) {
    const std::size_t number = instance.identity().number;
    Rotations::Reporter reporter;
    if (instances_[number].get() == &instance) {
        reporter.instance = number;
    }
    reporter.reachable =
        !traffic.isFirst && instance.serves() && steering_.active() == isSteered(wanted_);
    for (const RotatedFlow& flow : rotations_.observe(traffic.labels, reporter, Clock::now())) {
        log_.say(LogLevel::info, "flow " + flow.name + ": its next label " +
                                     labelInBothForms(flow.next) + " is in use");
    }
}

void Supervisor::deleteSilentLabels() {
    std::vector<std::uint32_t> labels;
    for (const SilentLabel& silent : rotations_.takeSilent()) {
        labels.push_back(silent.flow.label);
        log_.say(LogLevel::warn,
                 "flow " + silent.flow.name + ": deletes its old label " +
                     labelInBothForms(silent.flow.label) + ", which was silent for " +
                     std::to_string(silent.silence.count()) +
                     " s. Make next the flow itself in the file: after a restart of the "
                     "controller the old label and its keys are valid again");
    }
    if (labels.empty()) {
        return;
    }
    for (const auto& instance : instances_) {
        instance->deleteFlows(labels);
    }
}

void Supervisor::publishRotations() {
    if (metrics_) {
        metrics_->setRotations(rotations_.figures());
    }
}

}  // namespace vesk::controller
