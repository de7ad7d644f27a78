// What an instance does for the metrics apart from reports: it counts lines of the log, and
// starts readings of the kernel's figures.
#include <utility>

#include "child/flow_sockets.h"
#include "child/log_event_reader.h"
#include "service/instance.h"

namespace vesk::controller {

namespace {

Listener listenerOn(const HostPort& place) {
    return {tableAddress(place.host), place.port};
}

}  // namespace

/// Lines that appear only while the level is raised for a report are not counted: they would be a
/// random part of all such lines.
void Instance::count(const LogLine& line) {
    const std::optional<LogEvent> event = eventOf(line);
    if (metrics_ == nullptr || !event || line.level > levelNamed(wanted_.forwarder.logLevel)) {
        return;
    }
    metrics_->count(*event, identity_.child);
    if (event == LogEvent::endpointCreated) {
        noteCreatedEndpoint(line.text, flowDescriptors_);
    }
}

void Instance::askTheKernel() {
    // The forwarder's addresses may differ from the file's: the lateral stream never moves, and the
    // listener for peers moves after a delay.
    const Configuration& running = deployment_.running();
    const HostPort downstream = deployment_.listeningOn().value_or(running.downstream);
    KernelTarget target{session_->pid(), {listenerOn(downstream), {}}, {}};
    if (running.lateral) {
        target.listeners.lateral = listenerOn(running.lateral->listen);
    }
    // At a lower log level no line says which flow a descriptor belongs to, or that the number was
    // reused for another flow.
    if (levelNamed(wanted_.forwarder.logLevel) < LogLevel::info) {
        flowDescriptors_.clear();
    } else if (metrics_ != nullptr && metrics_->perFlow()) {
        target.flows = flowDescriptors_;
    }
    kernelWatch_.look(std::move(target),
                      [metrics = metrics_, child = identity_.child](const KernelFigures& figures) {
                          if (metrics != nullptr) {
                              metrics->setKernelFigures(figures, child);
                          }
                      });
}

}  // namespace vesk::controller
