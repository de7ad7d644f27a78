#include "service/steering.h"

#include <cerrno>
#include <system_error>

#include "commands/command_lines.h"
#include "service/listener_remedy.h"
#include "service/steering_warnings.h"
#include "steering/packet_filter.h"
#include "steering/steering_rules.h"

namespace vesk::controller {

namespace {

std::string cannotTake(const HostPort& address, int error) {
    return error == -EBUSY
               ? "cannot steer port " + std::to_string(address.port) +
                     " to the instances: another controller steers this port"
               : cannotListen(startCommand(address), std::generic_category().message(-error));
}

}  // namespace

std::string Steering::begin(const Configuration& configuration,
                            const std::vector<std::uint16_t>& ports) {
    number_ = configuration.downstream.port;
    if (const int error = port_.held() ? 0 : port_.take(configuration.downstream)) {
        return cannotTake(configuration.downstream, error);
    }
    const FilterAnswer answer =
        runFilterCommands(steeringRules(steeringPlan(configuration, ports)));
    active_ = answer.error.empty();
    return active_ ? "" : cannotSteer(number_, answer);
}

std::string Steering::move(const std::vector<std::uint16_t>& ports) const {
    const FilterAnswer answer = runFilterCommands(steeringSwap(number_, ports));
    return answer.error.empty() ? "" : cannotSteer(number_, answer);
}

std::optional<SteeringCounters> Steering::counters() const {
    const FilterAnswer answer = runFilterCommands(steeringCountersQuery(number_));
    return answer.error.empty() ? std::optional(parseSteeringCounters(answer.output))
                                : std::nullopt;
}

void Steering::end() {
    if (active_) {
        static_cast<void>(runFilterCommands(steeringRemoval(number_)));
        active_ = false;
    }
    port_.release();
}

}  // namespace vesk::controller
