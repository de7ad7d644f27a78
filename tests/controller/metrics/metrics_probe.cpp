// Serves the metrics of a child whose log comes in on standard input, as the controller would, and
// is driven line by line by the functional tests:
//
//     metrics-probe (total | per-flow) LABEL=NAME...
//
// It writes its port first. A line `@up`, `@down`, `@restart` or `@flows DECLARED ACTIVE` is what
// the controller would call; each other line is the child's. It writes `report` for each report
// taken in, `line TEXT` for each line that belongs to none and `done` for each line that begins
// with an @.
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

void act(vesk::controller::MetricsServer& server, const std::string& line) {
    std::istringstream words(line);
    std::string word;
    std::size_t declared = 0;
    std::size_t active = 0;
    words >> word >> declared >> active;
    if (word == "@up" || word == "@down") {
        server.childUp(word == "@up");
    } else if (word == "@restart") {
        server.countRestart();
    } else if (word == "@flows") {
        server.setFlows(declared, active);
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
