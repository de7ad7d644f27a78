// What the supervisor does for the metrics beside the report: it counts lines of the log, and has
// the kernel's figures read.
#include <utility>

#include "child/flow_sockets.h"
#include "child/log_events.h"
#include "service/supervisor.h"

namespace vesk::controller {

namespace {

Listener listenerOn(const HostPort& place) {
    return {tableAddress(place.host), place.port};
}

}  // namespace

/// Without the lines that are only there because the level is raised for a report: they would be a
/// part of all.
void Supervisor::count(const LogLine& line) {
    const std::optional<LogEvent> event = eventOf(line);
    if (!metrics_ || !event || line.level > levelNamed(wanted_.forwarder.logLevel)) {
        return;
    }
    metrics_->count(*event);
    if (event == LogEvent::endpointCreated) {
        noteCreatedEndpoint(line.text, flowDescriptors_);
    }
}

void Supervisor::askTheKernel() {
    // The file may be ahead of the forwarder: the lateral stream never moves, and the listener for
    // peers not at once.
    const Configuration& running = deployment_.running();
    const HostPort downstream = deployment_.listeningOn().value_or(running.downstream);
    KernelTarget target{session_->pid(), {listenerOn(downstream), {}}, {}};
    if (running.lateral) {
        target.listeners.lateral = listenerOn(running.lateral->listen);
    }
    // With a quieter log nothing says whose a new socket is, nor that an old number is another's.
    if (levelNamed(wanted_.forwarder.logLevel) < LogLevel::info) {
        flowDescriptors_.clear();
    } else if (servedMetrics_.perFlow) {
        target.flows = flowDescriptors_;
    }
    kernelWatch_.look(std::move(target), [metrics = metrics_.get()](const KernelFigures& figures) {
        if (metrics != nullptr) {
            metrics->setKernelFigures(figures);
        }
    });
}

}  // namespace vesk::controller
