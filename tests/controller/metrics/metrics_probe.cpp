// Serves the metrics of a child whose log it reads from standard input, in place of the controller.
// The functional tests control it line by line:
//
//     metrics-probe (total | per-flow) LABEL=NAME...
//
// It first writes its port. The lines `@up`, `@down`, `@restart`, `@flows DECLARED ACTIVE`,
// `@listening DOWNSTREAM LATERAL` (0 or 1 each), `@kernel N` (each figure of the kernel is N) and
// `@event` (one log event of each kind), `@instances N` (N instances in all), `@steering N`
// (each counter of the steering is N), `@fragments N` (a fragment has an error if N is 1) and
// `@peer RESOLVED` (0 or 1, of peer 0), `@rotation RECEIVED NEXT` (of a flow, since the epoch)
// stand for calls of the controller; each other line is a line of the child's log. It writes
// `report` for each report, `line TEXT` for each line outside of reports, and `done` for each line
// that begins with @.
#include <cstdint>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "metrics/metrics_server.h"
#include "metrics/report_parser.h"

namespace {

using Names = std::map<std::uint32_t, std::string>;

Names namesOf(int count, char** words) {
    Names names;
    for (int i = 0; i < count; ++i) {
        const std::string word = words[i];
        const std::size_t equals = word.find('=');
        names[static_cast<std::uint32_t>(std::stoul(word.substr(0, equals)))] =
            word.substr(equals + 1);
    }
    return names;
}

vesk::controller::KernelFigures allOf(std::uint64_t number) {
    vesk::controller::KernelFigures figures;
    figures.sockets.emplace().fill({number, number, number});
    figures.drops.fill(number);
    figures.flows.emplace().emplace(65537,
                                    vesk::controller::FlowSocket{{1, number, number}, number});
    figures.ports = {number, number};
    figures.descriptors = {number, number};
    figures.conntrack = {number, number};
    figures.ipv4 = {number, number};
    figures.ipv6 = {number, number};
    return figures;
}

void countEach(vesk::controller::MetricsServer& server) {
    using vesk::controller::LogEvent;
    for (const LogEvent event :
         {LogEvent::hmacFailure, LogEvent::endpointCreated, LogEvent::endpointDeletedByError}) {
        server.count(event);
    }
}

/// Each further instance runs, listens and has no flows.
void addInstances(vesk::controller::MetricsServer& server, std::size_t number) {
    for (std::size_t instance = 1; instance < number; ++instance) {
        const vesk::controller::ChildId child = server.addChild(instance);
        server.makeCurrent(child);
        server.childUp(true, child);
        server.setListening(true, true, child);
    }
}

void act(vesk::controller::MetricsServer& server, const std::string& line) {
    std::istringstream words(line);
    std::string word;
    std::size_t first = 0;
    std::size_t second = 0;
    words >> word >> first >> second;
    if (word == "@up" || word == "@down") {
        server.childUp(word == "@up");
    } else if (word == "@restart") {
        server.countRestart();
    } else if (word == "@flows") {
        server.setFlows(first, second);
    } else if (word == "@listening") {
        server.setListening(first != 0, second != 0);
    } else if (word == "@kernel") {
        server.setKernelFigures(allOf(first));
    } else if (word == "@event") {
        countEach(server);
    }
    if (word == "@instances") {
        addInstances(server, first);
    } else if (word == "@fragments") {
        server.setFragmentErrors({{"10-alice.toml", first != 0}});
    } else if (word == "@rotation") {
        server.setRotations({{"alice", 0x10001, 0x10002, {}, false, first, second}});
    } else if (word == "@steering") {
        server.setSteering({true, {first, first, first, first}});
    } else if (word == "@peer") {
        server.setPeers({{0, first != 0}});
    }
    std::cout << "done" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    const bool perFlow = argc > 1 && std::string(argv[1]) == "per-flow";
    const Names names = argc > 2 ? namesOf(argc - 2, argv + 2) : Names();
    vesk::controller::MetricsServer server("127.0.0.1", 0, perFlow);
    vesk::controller::ReportParser parser;
    std::cout << server.port() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        if (line.starts_with('@')) {
            act(server, line);
        } else if (!parser.feed(line)) {
            std::cout << "line " << line << std::endl;
        } else if (const auto report = parser.takeReport()) {
            server.update(*report, names);
            std::cout << "report" << std::endl;
        }
    }
    return 0;
}
