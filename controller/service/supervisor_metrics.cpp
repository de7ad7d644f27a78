// The supervisor's metrics: where the pages are served, and what is published apart from the
// reports. The loop is in supervisor.cpp.
#include <stdexcept>
#include <string>

#include "service/supervisor.h"

namespace vesk::controller {

/// Counts from the start, even if the pages cannot be served yet. False if they cannot be served
/// although metrics.required is true.
bool Supervisor::beginMetrics() {
    if (!servedMetrics_.enabled) {
        return true;
    }
    metrics_ = std::make_unique<MetricsServer>(servedMetrics_.perFlow);
    metrics_->setStrict(wanted_.supervision.strict);
    publishFragments();
    serveMetrics();
    return metrics_->serving() || !servedMetrics_.required;
}

void Supervisor::serveMetrics() {
    try {
        metrics_->serve(servedMetrics_.address, servedMetrics_.port);
        log_.say(LogLevel::info, "serving metrics on " + servedMetrics_.address + ", port " +
                                     std::to_string(metrics_->port()));
        return;
    } catch (const std::runtime_error& error) {
        log_.say(LogLevel::error, error.what());
    }
    if (servedMetrics_.required) {
        log_.say(LogLevel::error, "metrics.required is true: exiting");
        return;
    }
    const std::chrono::milliseconds pause = servePause_.after(Clock::duration::zero());
    serveAgainAt_ = Clock::now() + pause;
    log_.say(LogLevel::warn, "continues without metrics and tries to serve them again in " +
                                 std::to_string(pause.count()) + " ms");
}

/// A new address or port is used only if the pages are not being served yet.
void Supervisor::reloadMetrics() {
    const MetricsSettings& wanted = wanted_.metrics;
    if (metrics_) {
        metrics_->setStrict(wanted_.supervision.strict);
    }
    if (metrics_ && !metrics_->serving()) {
        servedMetrics_.address = wanted.address;
        servedMetrics_.port = wanted.port;
    }
    if (wanted != servedMetrics_) {
        log_.say(LogLevel::warn, "metrics: the change applies at the next start of the controller");
    }
}

void Supervisor::publishSteering(const SteeringCounters& counters) {
    if (metrics_) {
        metrics_->setSteering({steering_.active(), counters});
    }
}

void Supervisor::countReload() {
    for (const auto& instance : instances_) {
        if (instance->takeAddressRefusal() && reload_) {
            reload_ = ReloadOutcome::addressRefused;
        }
    }
    if (reload_ && metrics_) {
        metrics_->countReload(*reload_);
    }
    reload_.reset();
}

}  // namespace vesk::controller
