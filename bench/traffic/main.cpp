// vesk-traffic: sends datagrams through a forwarder, answers them upstream and reports.
#include <exception>
#include <iostream>
#include <optional>

#include "lib/child_process.h"
#include "traffic/options.h"
#include "traffic/report.h"
#include "traffic/traffic_run.h"

namespace vesk::bench {
namespace {

enum ExitStatus { good = 0, badTraffic = 1, badForwarder = 2 };

void tell(ChildProcess& forwarder, const std::vector<FlowPlan>& plans, std::uint16_t port) {
    for (const FlowPlan& plan : plans) {
        forwarder.sendLine(setCommand(plan));
    }
    // Last, so that a forwarder that answers knows all flows.
    forwarder.sendLine(startCommand(port));
}

void printCommands(const TrafficOptions& options) {
    for (const FlowPlan& plan : makeFlowPlans(options.flows)) {
        std::cout << setCommand(plan) << '\n';
    }
    std::cout << startCommand(options.port) << '\n';
}

bool endedWell(ChildProcess& forwarder) {
    const int status = forwarder.finish();
    for (const std::string& line : forwarder.log().complaints) {
        std::cerr << "forwarder: " << line << '\n';
    }
    if (status != 0) {
        std::cerr << "forwarder ended with status " << status << '\n';
    }
    return status == 0;
}

int run(TrafficOptions options) {
    if (options.printCommands) {
        printCommands(options);
        return good;
    }
    UdpSocket service(options.flows.upPort);
    options.flows.upPort = service.port();
    const std::vector<FlowPlan> plans = makeFlowPlans(options.flows);

    std::optional<ChildProcess> forwarder;
    std::uint16_t port = options.port;
    if (!options.command.empty()) {
        port = port != 0 ? port : freeUdpPort();
        forwarder.emplace(options.command);
        tell(*forwarder, plans, port);
    }
    const pid_t measuredPid = forwarder && options.pid == 0 ? forwarder->pid() : options.pid;
    const TrafficResult result = TrafficRun(options, port, measuredPid, service, plans).run();
    (options.json ? printJson : printTable)(std::cout, options, result);

    if (forwarder && !endedWell(*forwarder)) {
        return badForwarder;
    }
    const bool lost = result.requests.lost > 0 && !options.allowLoss;
    return lost || result.arrivals.wrong > 0 || result.arrivals.unexpected > 0 ? badTraffic : good;
}

}  // namespace
}  // namespace vesk::bench

int main(int argc, char** argv) {
    try {
        return vesk::bench::run(vesk::bench::parseTrafficOptions(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << "vesk-traffic: " << error.what() << '\n';
        return vesk::bench::badForwarder;
    }
}
