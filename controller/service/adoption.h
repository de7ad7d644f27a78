// Decides which forwarders that an earlier controller has left running are taken over, and ends all
// others. Called by service/supervisor once at the start, on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "child/forwarder_descriptors.h"
#include "config/configuration.h"
#include "service/kept_forwarder.h"
#include "service/log_output.h"
#include "service/passed_descriptors.h"
#include "service/service_notification.h"
#include "steering/steering_map.h"

namespace vesk::controller {

struct RunningForwarder {
    KeptPlace place;
    ForwarderDescriptors descriptors;
};

struct Adoption {
    std::vector<std::uint16_t> ports;  ///< of all instances, also of those without a forwarder
    std::map<std::size_t, ForwarderDescriptors> forwarders;  ///< by instance
    /// A second forwarder of an instance: the controller was killed during a replacement.
    std::optional<RunningForwarder> leftOver;
    bool rulesFit = false;  ///< the rules send the datagrams to `ports`
};

/// `left` is where the rules that the earlier controller has left send the datagrams. Descriptors
/// that are not taken over are removed from the service manager's store. Returns when the
/// forwarders that they belong to have ended, so that their ports are free.
Adoption adoptForwarders(std::vector<PassedDescriptor> passed, const Configuration& configuration,
                         const SteeringMap& left, const ServiceNotification& notification,
                         LogOutput& log);

}  // namespace vesk::controller
