#include "service/steering.h"

#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"
#include "commands/command_lines.h"
#include "config/instance_configurations.h"
#include "service/listener_remedy.h"
#include "service/steering_warnings.h"
#include "steering/packet_filter.h"

namespace vesk::controller {

namespace {

std::string cannotTake(const HostPort& address, int error) {
    return error == -EBUSY
               ? "cannot steer port " + std::to_string(address.port) +
                     " to the instances: another controller steers this port"
               : cannotListen(startCommand(address), std::generic_category().message(-error));
}

}  // namespace

/// Empty; or why it is not held.
std::string Steering::takePort(const HostPort& address) {
    const int error = port_.held() ? 0 : port_.take(address);
    return error == 0 ? "" : cannotTake(address, error);
}

SteeringMap Steering::left(const Configuration& configuration) {
    const FilterAnswer answer = runFilterCommands(steeringMapQuery(configuration.downstream.port));
    return parseSteeringMap(answer.output,
                            steeringMark(steeringPlan(configuration, firstPorts(configuration))));
}

std::optional<std::string> Steering::removeLeft(std::uint16_t publicPort) {
    UniqueFd claim;
    if (claimTable(publicPort, claim) != 0 ||
        !runFilterCommands(steeringMapQuery(publicPort)).error.empty()) {
        return std::nullopt;
    }
    return runFilterCommands(steeringRemoval(publicPort)).error;
}

std::string Steering::goOn(const Configuration& configuration,
                           const std::vector<std::uint16_t>& ports) {
    plan_ = steeringPlan(configuration, ports);
    std::string problem = takePort(configuration.downstream);
    if (problem.empty()) {
        problem = followAll();
    }
    active_ = problem.empty();
    return problem;
}

std::string Steering::begin(const Configuration& configuration,
                            const std::vector<std::uint16_t>& ports) {
    plan_ = steeringPlan(configuration, ports);
    if (std::string problem = takePort(configuration.downstream); !problem.empty()) {
        return problem;
    }
    std::string problem = change(plan_.publicPort, steeringRules(plan_));
    active_ = problem.empty();
    return problem;
}

std::string Steering::move(const std::vector<std::uint16_t>& ports, std::uint16_t formerPort,
                           const std::vector<std::uint32_t>& staying) const {
    return change(plan_.publicPort, steeringStayEnd(plan_.publicPort) +
                                        steeringSwap(plan_.publicPort, ports) +
                                        steeringStay(plan_, formerPort, staying));
}

std::string Steering::follow(std::uint32_t label) const {
    return change(plan_.publicPort, steeringFollow(plan_.publicPort, label));
}

std::string Steering::followAll() const {
    return change(plan_.publicPort, steeringStayEnd(plan_.publicPort));
}

/// Empty, or why the packet filter refused the commands.
std::string Steering::change(std::uint16_t publicPort, const std::string& commands) {
    const FilterAnswer answer = runFilterCommands(commands);
    return answer.error.empty() ? "" : cannotSteer(publicPort, answer);
}

std::optional<SteeringCounters> Steering::counters() const {
    const FilterAnswer answer = runFilterCommands(steeringCountersQuery(plan_.publicPort));
    return answer.error.empty() ? std::optional(parseSteeringCounters(answer.output))
                                : std::nullopt;
}

void Steering::end() {
    if (active_) {
        static_cast<void>(runFilterCommands(steeringRemoval(plan_.publicPort)));
        active_ = false;
    }
    port_.release();
}

}  // namespace vesk::controller
