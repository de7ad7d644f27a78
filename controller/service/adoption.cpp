#include "service/adoption.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include "child/process_descriptor.h"
#include "config/instance_configurations.h"

namespace vesk::controller {

namespace {

using Descriptors = std::vector<PassedDescriptor>;

/// A forwarder whose input is closed ends at once, unless it hangs.
constexpr std::chrono::milliseconds endPatience{1000};

void moveTo(Descriptors& target, Descriptors& source) {
    std::ranges::move(source, std::back_inserter(target));
    source.clear();
}

bool isPipe(int descriptor, int access) {
    struct stat about {};
    return fstat(descriptor, &about) == 0 && S_ISFIFO(about.st_mode) &&
           (fcntl(descriptor, F_GETFL) & O_ACCMODE) == access;
}

bool is(KeptPart part, int descriptor) {
    switch (part) {
        case KeptPart::input:
            return isPipe(descriptor, O_WRONLY);
        case KeptPart::output:
            return isPipe(descriptor, O_RDONLY);
        default:
            return processOf(descriptor) > 0 && !hasEnded(descriptor);
    }
}

UniqueFd& memberOf(ForwarderDescriptors& forwarder, KeptPart part) {
    switch (part) {
        case KeptPart::input:
            return forwarder.input;
        case KeptPart::output:
            return forwarder.output;
        default:
            return forwarder.process;
    }
}

/// Exactly one descriptor for each part, in any order.
bool isComplete(const Descriptors& set) {
    return set.size() == keptParts.size() && std::ranges::all_of(keptParts, [&](KeptPart part) {
               return std::ranges::any_of(set, [&](const PassedDescriptor& it) {
                   return keptNameIn(it.name)->part == part && is(part, it.descriptor.get());
               });
           });
}

ForwarderDescriptors forwarderOf(Descriptors set) {
    ForwarderDescriptors forwarder;
    for (PassedDescriptor& it : set) {
        memberOf(forwarder, keptNameIn(it.name)->part) = std::move(it.descriptor);
    }
    return forwarder;
}

/// By the forwarder that they belong to. Those of none go to `refused`.
std::map<KeptPlace, Descriptors> setsOf(Descriptors passed, Descriptors& refused) {
    std::map<KeptPlace, Descriptors> sets;
    for (PassedDescriptor& it : passed) {
        const std::optional<KeptName> name = keptNameIn(it.name);
        (name ? sets[name->place] : refused).push_back(std::move(it));
    }
    return sets;
}

bool fits(const KeptPlace& place, const Configuration& configuration) {
    return isSteered(configuration) && place.number < configuration.forwarder.instances &&
           place.port >= configuration.instancePorts->first &&
           place.port <= configuration.instancePorts->last;
}

/// The ports to which the rules send the datagrams; none if an instance has no port of its own.
std::optional<std::vector<std::uint16_t>> portsIn(const SteeringMap& left,
                                                  const Configuration& configuration) {
    std::vector<std::uint16_t> ports;
    for (const auto& [number, port] : left) {
        if (number != ports.size() || !fits({number, port}, configuration) ||
            std::ranges::find(ports, port) != ports.end()) {
            return std::nullopt;
        }
        ports.push_back(port);
    }
    const bool all = !ports.empty() && ports.size() == configuration.forwarder.instances;
    return all ? std::optional(ports) : std::nullopt;
}

/// Instances without a forwarder get ports that no forwarder has.
void addFreePorts(Adoption& adoption, const Configuration& configuration) {
    std::vector<std::uint16_t>& ports = adoption.ports;
    std::vector<std::uint16_t> taken = ports;
    if (adoption.leftOver) {
        taken.push_back(adoption.leftOver->place.port);
    }
    std::uint16_t free = configuration.instancePorts->first;
    for (std::uint16_t& port : ports) {
        while (port == 0 && std::ranges::find(taken, free) != taken.end()) {
            ++free;
        }
        port = port == 0 ? free++ : port;
    }
}

bool endsWithin(std::chrono::milliseconds patience, int process) {
    pollfd watched{process, POLLIN, 0};
    return poll(&watched, 1, static_cast<int>(patience.count())) != 0;
}

/// Closes the copies here and in the store, which ends the forwarders.
void endForwarders(Descriptors refused, const ServiceNotification& notification, LogOutput& log) {
    std::vector<UniqueFd> processes;
    for (PassedDescriptor& it : refused) {
        log.say(LogLevel::warn, "closes a descriptor of an earlier controller: " + it.name);
        notification.removeStored(it.name);
        const std::optional<KeptName> name = keptNameIn(it.name);
        if (name && name->part == KeptPart::process && processOf(it.descriptor.get()) > 0) {
            processes.push_back(std::move(it.descriptor));
        }
        it.descriptor.reset();
    }
    for (const UniqueFd& process : processes) {
        if (!endsWithin(endPatience, process.get())) {
            signalProcess(process.get(), SIGKILL);
            static_cast<void>(endsWithin(endPatience, process.get()));
        }
    }
}

}  // namespace

Adoption adoptForwarders(Descriptors passed, const Configuration& configuration,
                         const SteeringMap& left, const ServiceNotification& notification,
                         LogOutput& log) {
    Adoption adoption;
    const auto steered = portsIn(left, configuration);
    adoption.ports = steered.value_or(std::vector<std::uint16_t>(
        isSteered(configuration) ? configuration.forwarder.instances : 0));
    Descriptors refused;
    std::map<KeptPlace, Descriptors> sets = setsOf(std::move(passed), refused);
    for (auto& [place, set] : sets) {
        if (!fits(place, configuration) || !isComplete(set)) {
            moveTo(refused, set);
            continue;
        }
        std::uint16_t& port = adoption.ports[place.number];
        if (port == place.port || port == 0) {
            port = place.port;
            adoption.forwarders.emplace(place.number, forwarderOf(std::move(set)));
        } else if (!adoption.leftOver) {
            adoption.leftOver = RunningForwarder{place, forwarderOf(std::move(set))};
        } else {
            moveTo(refused, set);
        }
    }
    endForwarders(std::move(refused), notification, log);
    adoption.rulesFit = steered.has_value();
    if (isSteered(configuration)) {
        addFreePorts(adoption, configuration);
    }
    return adoption;
}

}  // namespace vesk::controller
