#include "service/steered_reload.h"

#include "config/instance_configurations.h"

namespace vesk::controller {

std::vector<std::string> keepSteering(const Configuration& running, Configuration& wanted) {
    std::vector<std::string> kept;
    if (!isSteered(running) && !isSteered(wanted)) {
        return kept;
    }
    const auto keep = [&](const auto& old, auto& now, const char* name) {
        if (!(old == now)) {
            now = old;
            kept.emplace_back(name);
        }
    };
    // The part of a lateral table depends on the number of instances.
    if (running.forwarder.instances != wanted.forwarder.instances) {
        wanted.lateral = running.lateral;
    }
    keep(running.forwarder.instances, wanted.forwarder.instances, "forwarder.instances");
    keep(running.forwarder.framing, wanted.forwarder.framing, "forwarder.framing");
    keep(running.downstream.host, wanted.downstream.host, "downstream.address");
    keep(running.downstream.port, wanted.downstream.port, "downstream.port");
    keep(running.instancePorts, wanted.instancePorts, "downstream.instance_ports");
    return kept;
}

}  // namespace vesk::controller
