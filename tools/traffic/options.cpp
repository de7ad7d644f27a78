#include "traffic/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>

#include "lib/datagram_batch.h"

namespace vesk::bench {
namespace {

constexpr std::size_t defaultPeers = 8;

struct Names {
    std::string framing = "udpv2";
    std::vector<std::string> algorithms = {"sha256"};
};

void addTraffic(CLI::App& app, TrafficOptions& options, Names& names) {
    app.add_option("--framing", names.framing, "udpv1 or udpv2")
        ->check(CLI::IsMember({"udpv1", "udpv2"}))
        ->capture_default_str();
    app.add_option(
           "--algorithm", names.algorithms,
           "sha256, sha1 or none; with several, separated by commas, the flows use them in turn")
        ->check(CLI::IsMember({"sha256", "sha1", "none"}))
        ->delimiter(',')
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--flows", options.flows.flows, "number of flows")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    app.add_option("--peers", options.peers,
                   "number of peer sockets (default: 8, never more than flows)")
        ->check(CLI::Range(1, 16000));
    app.add_option("--payload", options.payload, "bytes of payload")
        ->check(CLI::Range(4, 2010))
        ->capture_default_str();
    app.add_option("--label-base", options.flows.labelBase, "label of the first flow")
        ->check(CLI::Range(1U, 0x1fff0000U))
        ->capture_default_str();
    app.add_option("--label-step", options.flows.labelStep,
                   "difference of the labels of two flows; with 65536 several instances share them")
        ->check(CLI::Range(1U, 65537U))
        ->capture_default_str();
    app.add_option("--seed", options.flows.seed, "seed of the keys")->capture_default_str();
    app.add_flag("--one-way", options.oneWay, "requests only, no replies");
    app.add_flag("--unchanged", options.flows.unchanged,
                 "expect datagrams as they were sent, for a forwarder without labels and keys");
}

void addMove(CLI::App& app, TrafficOptions& options) {
    CLI::Option* const label =
        app.add_option("--next-label", options.nextLabel,
                       "move to other labels and keys during the measured time; this is the first "
                       "flow's")
            ->check(CLI::Range(1U, 0x1fff0000U));
    app.add_option("--next-seed", options.nextSeed,
                   "seed of the keys after the move (default: the one after --seed)")
        ->needs(label);
    app.add_option("--next-after", options.nextAfter,
                   "seconds of the measured time before the move (default: half of it)")
        ->check(CLI::Range(0.0, 864000.0))
        ->needs(label);
}

void addPace(CLI::App& app, TrafficOptions& options) {
    app.add_option("--rate", options.rate, "open loop: requests per second")
        ->check(CLI::Range(1.0, 1e7));
    app.add_option("--window", options.window, "closed loop: number of requests outstanding")
        ->check(CLI::Range(1, 16384))
        ->capture_default_str();
    app.add_option("--burst", options.burst,
                   "send requests in bursts of so many of one flow; the flows take turns")
        ->check(CLI::Range(1, static_cast<int>(batchSize)))
        ->capture_default_str();
    app.add_option("--warm-up", options.warmUp, "seconds of traffic before the measured time")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    app.add_option("--duration", options.duration, "measured seconds")
        ->check(CLI::Range(0.01, 864000.0))
        ->capture_default_str();
    app.add_option("--requests", options.requests,
                   "end the measured time after this many requests");
    app.add_option("--loss-timeout", options.lossTimeout,
                   "seconds after which a request counts as lost")
        ->check(CLI::Range(0.01, 5.0))
        ->capture_default_str();
    app.add_option("--verify-every", options.verifyEvery,
                   "verify HMAC and payload of every n-th arrival")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_flag("--spin", options.spin,
                 "poll for datagrams instead of sleeping until one arrives");
    app.add_flag("--merge-sends", options.mergeSends,
                 "hand consecutive datagrams of one length and destination to the kernel as one "
                 "message, and let it merge arrivals");
}

void addForwarder(CLI::App& app, TrafficOptions& options) {
    app.add_option("--check-source", options.flows.source,
                   "make the forwarder listen on this address and bind each flow to it, and count "
                   "datagrams from other addresses")
        ->check(CLI::ValidIPV4);
    app.add_option("--port", options.port,
                   "port of the forwarder (default for a command: a free port)");
    app.add_option("--upstream-port", options.flows.upPort,
                   "port of the upstream end (default for a command: a free port)");
    app.add_option("--pid", options.pid,
                   "process whose processor time is measured (default: the command)");
    CLI::Option* const commands =
        app.add_flag("--print-commands", options.printCommands,
                     "print the commands for a forwarder that runs already, and end");
    app.add_flag("--print-toml", options.printToml,
                 "print a vesk-controller file for the flows, including keys, and end")
        ->excludes(commands);
    app.add_flag("--show-session", options.showSession,
                 "print the commands sent to the forwarder and everything that it logs");
    app.add_flag("--json", options.json, "print JSON instead of a table");
    app.add_flag("--allow-loss", options.allowLoss, "do not fail if datagrams are lost");
    app.add_option("command", options.command, "after \"--\": the forwarder to start and measure");
}

/// The label after those of all flows, of which the first has this one.
std::uint64_t endOfLabels(const FlowPlanOptions& flows, std::uint32_t first) {
    return first + flows.flows * std::uint64_t{flows.labelStep};
}

void checkMove(const TrafficOptions& options) {
    const FlowPlanOptions& flows = options.flows;
    if (endOfLabels(flows, options.nextLabel) > firstForeignLabel) {
        throw CLI::ValidationError("--next-label: the labels of so many flows are too high");
    }
    if (options.nextLabel < endOfLabels(flows, flows.labelBase) &&
        flows.labelBase < endOfLabels(flows, options.nextLabel)) {
        throw CLI::ValidationError("--next-label: the labels overlap those before the move");
    }
    if (options.nextAfter >= options.duration) {
        throw CLI::ValidationError("--next-after: is not within the measured time");
    }
    if (!flows.source.empty()) {
        throw CLI::ValidationError("--next-label excludes --check-source");
    }
}

void check(const TrafficOptions& options) {
    if (options.command.empty() && options.port == 0) {
        throw CLI::ValidationError("give either --port or a command that starts a forwarder");
    }
    if (options.command.empty() && options.flows.upPort == 0) {
        throw CLI::ValidationError("--port requires --upstream-port");
    }
    const FlowPlanOptions& flows = options.flows;
    if (endOfLabels(flows, flows.labelBase) > firstForeignLabel) {
        throw CLI::ValidationError("--label-step: the labels of so many flows are too high");
    }
    if (options.rate == 0 && options.burst > options.window) {
        throw CLI::ValidationError("--burst: more requests than --window allows");
    }
    if (!options.flows.source.empty() && options.flows.flows > mostSources) {
        throw CLI::ValidationError("--check-source: too many flows, not enough ports");
    }
    if (options.nextLabel != 0) {
        checkMove(options);
    }
}

}  // namespace

std::vector<FlowPlan> plansOf(const TrafficOptions& options) {
    std::vector<FlowPlan> plans = makeFlowPlans(options.flows);
    if (options.nextLabel != 0) {
        FlowPlanOptions next = options.flows;
        next.labelBase = options.nextLabel;
        next.seed = options.nextSeed;
        std::ranges::move(makeFlowPlans(next), std::back_inserter(plans));
    }
    return plans;
}

std::variant<TrafficOptions, int> parseTrafficOptions(int argc, char** argv) {
    CLI::App app(
        "Sends signed datagrams through a forwarder on the loopback address, answers them at the "
        "upstream end, verifies what arrives and reports rates, losses and processor time.");
    TrafficOptions options;
    Names names;
    addTraffic(app, options, names);
    addMove(app, options);
    addPace(app, options);
    addForwarder(app, options);
    app.set_version_flag("--version", "vesk-traffic " VESK_VERSION, "print the version and end");
    try {
        app.parse(argc, argv);
        if (app.count("--next-seed") == 0) {
            options.nextSeed = options.flows.seed + 1;
        }
        if (app.count("--next-after") == 0) {
            options.nextAfter = options.duration / 2;
        }
        check(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    options.checkSource = !options.flows.source.empty();
    if (options.checkSource) {
        options.address = options.flows.source;
    }
    options.framing = &framingByName(names.framing);
    options.flows.algorithms.clear();
    for (const std::string& name : names.algorithms) {
        options.flows.algorithms.push_back(algorithmByName(name));
    }
    if (options.peers == 0) {
        options.peers = defaultPeers;
    }
    options.peers = std::min(options.peers, options.flows.flows);
    return options;
}

}  // namespace vesk::bench
