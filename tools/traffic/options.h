// What one run of the traffic generator does, as asked for on its command line.
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
    std::size_t peers = 0;  // sockets that the flows are spread over; 0 chooses
    bool oneWay = false;

    double rate = 0;             // requests a second; 0 keeps `window` of them outstanding instead
    std::size_t window = 256;    // requests
    double warmUp = 0.5;         // seconds
    double duration = 2;         // seconds
    std::uint64_t requests = 0;  // ends the measured time early; 0 does not
    double lossTimeout = 0.25;   // seconds after which an unanswered request is lost
    std::uint64_t verifyEvery = 64;  // every n-th arrival is verified whole
    bool spin = false;

    std::string address = "127.0.0.1";  // of the forwarder
    bool checkSource = false;  // whether arrivals come from where the forwarder is addressed
    std::uint16_t port = 0;    // of the forwarder; 0 lets the kernel choose, for a child only
    pid_t pid = 0;             // whose processor time is measured
    std::vector<std::string> command;  // a forwarder to start, which is then the one measured

    bool printCommands = false;
    bool printToml = false;
    bool showSession = false;  // print what the child is told and what it logs
    bool json = false;
    bool allowLoss = false;
};

/// An exit status instead of options after "--help" and for arguments that make no sense; what
/// there is to say about them is then printed.
std::variant<TrafficOptions, int> parseTrafficOptions(int argc, char** argv);

}  // namespace vesk::bench
