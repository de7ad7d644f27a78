// The options of one run of the traffic generator, parsed from its command line. Called by main.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "lib/flow_plan.h"
#include "lib/framing.h"

namespace vesk::bench {

struct TrafficOptions {
    const FramingLayout* framing = &udpV2;
    FlowPlanOptions flows;
    std::size_t payload = 512;
    std::size_t peers = 0;  // sockets that share the flows; 0: the default
    bool oneWay = false;
    /// The flows move to other labels and keys during the measured time; 0: they do not.
    std::uint32_t nextLabel = 0;  // of the first flow
    std::uint64_t nextSeed = 0;
    double nextAfter = 0;  // seconds of the measured time

    double rate = 0;                 // requests per second; 0: keep `window` of them outstanding
    std::size_t window = 256;        // requests
    std::size_t burst = 1;           // consecutive requests of one flow, sent back to back
    double warmUp = 0.5;             // seconds
    double duration = 2;             // seconds
    std::uint64_t requests = 0;      // ends the measured time early; 0: no limit
    double lossTimeout = 0.25;       // seconds after which an unanswered request is lost
    std::uint64_t verifyEvery = 64;  // HMAC and payload of every n-th arrival are verified
    bool spin = false;
    bool mergeSends = false;  // let the kernel segment and merge datagrams at both ends

    std::string address = "127.0.0.1";  // of the forwarder
    bool checkSource = false;           // check the source addresses of arrivals
    std::uint16_t port = 0;             // of the forwarder; 0: a free one, only with `command`
    pid_t pid = 0;                      // process to be measured; 0: that of `command`
    std::vector<std::string> command;   // starts the forwarder; empty: it runs already

    bool printCommands = false;
    bool printToml = false;
    bool showSession = false;  // print the commands to the child and its log
    bool json = false;
    bool allowLoss = false;
};

/// The labels and keys of all flows; if they move, the next ones of all flows follow.
std::vector<FlowPlan> plansOf(const TrafficOptions& options);

/// The options, or the exit status if the process must end: after --help, --version or, with a
/// message, invalid arguments.
std::variant<TrafficOptions, int> parseTrafficOptions(int argc, char** argv);

}  // namespace vesk::bench
