#include "traffic/traffic_run.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "lib/clocks.h"
#include "lib/datagram_batch.h"

namespace vesk::bench {
namespace {

constexpr std::size_t smallestPool = 2048;
constexpr std::size_t openingWindow = 64;
constexpr std::int64_t probeInterval = 20'000'000;
constexpr std::int64_t longestStart = 15 * nanosecondsPerSecond;
constexpr double longestOpening = 30;
constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::int64_t nanoseconds(double seconds) {
    return static_cast<std::int64_t>(seconds * nanosecondsPerSecond);
}

// Large enough that a number is not reused while its last request may still be answered, and a
// multiple of the number of flows, so that they take turns, each with whole bursts.
std::size_t poolSize(const TrafficOptions& options) {
    const auto open = static_cast<std::size_t>(options.rate * options.lossTimeout);
    const std::size_t wanted =
        std::max({smallestPool, 4 * options.window, 2 * options.flows.flows, open});
    // Neither is 0.
    const std::size_t turn = std::max<std::size_t>(options.burst * options.flows.flows, 1);
    return (wanted + turn - 1) / turn * turn;
}

ArrivalCounts difference(const ArrivalCounts& end, const ArrivalCounts& start) {
    return {end.upstream - start.upstream,
            end.peers - start.peers,
            end.wrong - start.wrong,
            end.unexpected - start.unexpected,
            end.wrongSource - start.wrongSource,
            end.verified - start.verified};
}

ProcessUsage difference(const ProcessUsage& end, const ProcessUsage& start) {
    return {end.cpuNanoseconds - start.cpuNanoseconds, end.waits - start.waits, end.residentBytes};
}

}  // namespace

TrafficRun::TrafficRun(const TrafficOptions& options, std::uint16_t forwarderPort,
                       pid_t measuredPid, UdpSocket& service, const std::vector<FlowPlan>& plans)
    : options_(options),
      measuredPid_(measuredPid),
      pool_(*options.framing, plans, options.payload, poolSize(options), options.burst,
            options.nextLabel != 0 ? 2 : 1),
      ledger_(pool_.size(), nanoseconds(options.lossTimeout),
              [this](std::size_t number) { return pool_.flowOf(number); }),
      ends_(options, forwarderPort, service, pool_, ledger_) {
    if (options.command.empty()) {
        endRequest_.emplace();
    }
}

TrafficResult TrafficRun::run() {
    TrafficResult result;
    awaitForwarder();
    const std::int64_t openingStart = nowNanoseconds();
    openFlows();
    result.opening = nowNanoseconds() - openingStart;

    Pacer warmUp = makePacer();
    carry(warmUp, options_.warmUp, unlimited);

    ledger_.measure(true);
    Pacer pacer = makePacer();
    const ArrivalCounts before = ends_.counts();
    const std::uint64_t mergedBefore = ends_.mergedSends();
    const auto usageBefore = measuredUsage();
    const std::int64_t start = nowNanoseconds();
    carryMeasured(pacer);
    if (usageBefore) {
        result.usage = difference(*measuredUsage(), *usageBefore);
    }
    result.elapsed = nowNanoseconds() - start;
    result.arrivals = difference(ends_.counts(), before);
    result.mergedSends = ends_.mergedSends() - mergedBefore;
    ledger_.measure(false);
    drain();

    // Faults of datagrams sent in the measured time may be detected only during the drain.
    result.arrivals.wrong = ends_.counts().wrong - before.wrong;
    result.arrivals.unexpected = ends_.counts().unexpected - before.unexpected;
    result.arrivals.wrongSource = ends_.counts().wrongSource - before.wrongSource;
    result.arrivals.verified = ends_.counts().verified - before.verified;
    result.requests = ledger_.counts();
    result.roundTrips = ledger_.roundTrips();
    result.skipped = pacer.skipped();
    return result;
}

void TrafficRun::awaitForwarder() {
    const std::int64_t deadline = nowNanoseconds() + longestStart;
    // A forwarder that sends only wrong datagrams has started too; the report shows the fault.
    while (ends_.counts().upstream + ends_.counts().wrong == 0) {
        if (nowNanoseconds() > deadline) {
            throw std::runtime_error("the forwarder passes nothing on");
        }
        ends_.sendRequests(1);
        ends_.serve(probeInterval);
        ledger_.expire(nowNanoseconds());
    }
    drain();
}

void TrafficRun::openFlows() {
    Pacer pacer = Pacer::closedLoop(openingWindow);
    // The probes may have begun a burst. Its rest and whole bursts of all other flows: the measured
    // time begins with the first number of a burst.
    const std::size_t begun = ledger_.nextNumber() % options_.burst;
    carry(pacer, longestOpening, options_.flows.flows * options_.burst - begun);
    drain();
}

void TrafficRun::carryMeasured(Pacer& pacer) {
    const std::uint64_t requests = options_.requests > 0 ? options_.requests : unlimited;
    if (options_.nextLabel == 0) {
        carry(pacer, options_.duration, requests);
        return;
    }
    const std::uint64_t sent = carry(pacer, options_.nextAfter, requests);
    ledger_.moveOn();
    carry(pacer, options_.duration - options_.nextAfter, requests - sent);
}

std::uint64_t TrafficRun::carry(Pacer& pacer, double seconds, std::uint64_t requests) {
    const std::uint64_t wanted = requests;
    const std::int64_t end = nowNanoseconds() + nanoseconds(seconds);
    for (std::int64_t now = nowNanoseconds(); now < end && requests > 0 && !hasToEnd(now);
         now = nowNanoseconds()) {
        ledger_.expire(now);
        const std::size_t due =
            std::min<std::uint64_t>({pacer.due(now, ledger_.outstanding()), batchSize, requests});
        const std::size_t sent = due > 0 ? ends_.sendRequests(due) : 0;
        pacer.sent(sent);
        requests -= sent;
        ends_.serve(options_.spin ? 0 : std::min(pacer.pause(nowNanoseconds()), end - now));
    }
    return wanted - requests;
}

bool TrafficRun::hasToEnd(std::int64_t now) {
    return endRequest_ && endRequest_->arrived(now);
}

void TrafficRun::drain() {
    while (ledger_.outstanding() > 0) {
        ends_.serve(nanoseconds(options_.lossTimeout) / 10);
        ledger_.expire(nowNanoseconds());
    }
}

Pacer TrafficRun::makePacer() const {
    return options_.rate > 0 ? Pacer::openLoop(options_.rate, nowNanoseconds(), options_.burst)
                             : Pacer::closedLoop(options_.window, options_.burst);
}

std::optional<ProcessUsage> TrafficRun::measuredUsage() const {
    return measuredPid_ > 0 ? std::optional(usageOf(measuredPid_)) : std::nullopt;
}

}  // namespace vesk::bench
