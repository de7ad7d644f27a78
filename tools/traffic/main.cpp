// vesk-traffic: sends datagrams through a forwarder, answers them upstream and reports.
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "lib/child_process.h"
#include "traffic/controller_file.h"
#include "traffic/options.h"
#include "traffic/report.h"
#include "traffic/traffic_run.h"

namespace vesk::bench {
namespace {

enum ExitStatus { good = 0, badTraffic = 1, badForwarder = 2 };

std::vector<std::string> commandsFor(const std::vector<FlowPlan>& plans, const std::string& address,
                                     std::uint16_t port) {
    std::vector<std::string> lines;
    lines.reserve(plans.size() + 1);
    for (const FlowPlan& plan : plans) {
        lines.push_back(setCommand(plan));
    }
    // Last, so that all flows are declared when the forwarder begins to forward.
    lines.push_back(startCommand(address, port));
    return lines;
}

// One insertion for each line, since another thread prints the lines of the log.
void show(const char* mark, std::string_view line) {
    std::cout << mark + std::string(line) + '\n';
}

std::unique_ptr<ChildProcess> startForwarder(const TrafficOptions& options,
                                             const std::vector<std::string>& commands) {
    const auto showLog = [](std::string_view line) { show("< ", line); };
    auto forwarder = std::make_unique<ChildProcess>(
        options.command, options.showSession ? showLog : ChildProcess::LogListener());
    for (const std::string& line : commands) {
        if (options.showSession) {
            show("> ", line);
        }
        forwarder->sendLine(line);
    }
    return forwarder;
}

void passOnComplaints(const ChildProcess& forwarder) {
    for (const std::string& line : forwarder.log().complaints) {
        std::cerr << "forwarder: " << line << '\n';
    }
}

bool endedWell(ChildProcess& forwarder) {
    const int status = forwarder.finish();
    passOnComplaints(forwarder);
    if (status != 0) {
        std::cerr << "forwarder ended with status " << status << '\n';
    }
    return status == 0;
}

void printFlows(const TrafficOptions& options) {
    const std::vector<FlowPlan> plans = plansOf(options);
    if (options.printToml) {
        printControllerFile(std::cout, options, plans);
        return;
    }
    for (const std::string& line : commandsFor(plans, options.address, options.port)) {
        std::cout << line << '\n';
    }
}

int run(TrafficOptions options) {
    if (options.printCommands || options.printToml) {
        printFlows(options);
        return good;
    }
    UdpSocket service(options.flows.upPort);
    options.flows.upPort = service.port();
    const std::vector<FlowPlan> plans = plansOf(options);

    const std::uint16_t port = options.port != 0 ? options.port : freeUdpPort();
    std::unique_ptr<ChildProcess> forwarder;
    if (!options.command.empty()) {
        forwarder = startForwarder(options, commandsFor(plans, options.address, port));
    }
    const pid_t measuredPid = forwarder && options.pid == 0 ? forwarder->pid() : options.pid;
    TrafficResult result;
    try {
        result = TrafficRun(options, port, measuredPid, service, plans).run();
    } catch (...) {
        if (forwarder) {
            passOnComplaints(*forwarder);
        }
        throw;
    }
    const bool forwarderFailed = forwarder && !endedWell(*forwarder);
    (options.json ? printJson : printTable)(std::cout, options, result);
    if (forwarderFailed) {
        return badForwarder;
    }
    const bool lost = result.requests.lost > 0 && !options.allowLoss;
    const ArrivalCounts& arrivals = result.arrivals;
    return lost || arrivals.wrong > 0 || arrivals.unexpected > 0 || arrivals.wrongSource > 0
               ? badTraffic
               : good;
}

}  // namespace
}  // namespace vesk::bench

int main(int argc, char** argv) {
    try {
        const auto parsed = vesk::bench::parseTrafficOptions(argc, argv);
        if (const int* status = std::get_if<int>(&parsed)) {
            return *status;
        }
        return vesk::bench::run(std::get<vesk::bench::TrafficOptions>(parsed));
    } catch (const std::exception& error) {
        std::cerr << "vesk-traffic: " << error.what() << '\n';
        return vesk::bench::badForwarder;
    }
}
