#include "stats/stats_report.h"

#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "context/forwarder_context.h"
#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

namespace {

// Each section ends in a newline, so an empty line follows it in the log. Kept: the punctuation,
// missing colons included; readers of the log match these texts.

std::string describePoll(const PollThreadParam* poll) {
    std::ostringstream text;
    text << "\nPoll stats:\n";
    if (poll != nullptr) {
        const auto active = static_cast<std::uint32_t>(poll->ActiveEvtNr.load());
        text << "ActiveEvtNr:" << active << " "
             << "RdReadyNr:" << poll->RdReadyNr.value() << " "
             << "WrReadyNr:" << poll->WrReadyNr.value() << " "
             << "ErrorNr:" << poll->ErrorNr.value() << "\n";
    }
    return text.str();
}

std::string describeUpstream(const std::vector<EndpointPtr>& endpoints) {
    std::ostringstream text;
    text << "Upstream Stats:\n";
    for (const EndpointPtr& endpoint : endpoints) {
        const EndpointCounters& counters = endpoint->counters;
        text << "Label:" << endpoint->label << ","
             << "RxDg:" << counters.rxDg.value() << ","
             << "TxDg:" << counters.txDg.value() << ","
             << "RxDgError" << counters.rxDgError.value() << ","
             << "TxDgDropped" << counters.txDgDropped.value() << ","
             << "DnTxDg:" << counters.dnTxDg.value() << ","
             << "DnTxDgDropped:" << counters.dnTxDgDropped.value() << "\n";
    }
    return text.str();
}

std::string describeWorkers(const char* heading, const PollParams& workers) {
    std::ostringstream text;
    text << heading;
    for (const auto& worker : workers) {
        text << "WakeNr:" << worker->wakeCount.value() << ","
             << "ReadyFdNr:" << worker->queueDepthSum.load() << ","
             << "DgNr:" << worker->receivedTotal.value() << " ";
    }
    text << "\n";
    return text.str();
}

std::uint64_t receivedByAll(const PollParams& workers) {
    return std::accumulate(
        workers.begin(), workers.end(), std::uint64_t{0},
        [](std::uint64_t sum, const auto& it) { return sum + it->receivedTotal.value(); });
}

std::string describeTotals(std::size_t endpoints, const ForwarderContext& context) {
    std::ostringstream text;
    text << "EptNr:" << endpoints << ","
         << "RxDg:" << receivedByAll(context.receiveWorkers) << ","
         << "TxDg:" << receivedByAll(context.sendWorkers) << "\n";
    return text.str();
}

void describeBothWays(std::ostream& text, const EndpointCounters& counters) {
    text << "RxDg:" << counters.rxDg.value() << ","
         << "TxDg:" << counters.txDg.value() << ","
         << "RxDgError:" << counters.rxDgError.value() << ","
         << "TxDgDropped:" << counters.txDgDropped.value();
}

std::string describeDownstream(const EndpointPtr& endpoint) {
    std::ostringstream text;
    text << "Downstream Stats:\n";
    if (endpoint) {
        describeBothWays(text, endpoint->counters);
        text << "\n";
    }
    return text.str();
}

std::string describeLateral(const EndpointPtr& endpoint) {
    std::ostringstream text;
    text << "Lateral Stats:\n";
    if (endpoint) {
        describeBothWays(text, endpoint->counters);
        text << ","
             << "DnTxDg:" << endpoint->counters.dnTxDg.value() << ","
             << "DnTxDgDropped:" << endpoint->counters.dnTxDgDropped.value() << "\n";
    }
    return text.str();
}

/// The report's sections in order. Releases the endpoints before it returns.
std::vector<std::string> describeAll(const ForwarderContext& context) {
    const std::vector<EndpointPtr> endpoints = context.endpointManager->endpoints();
    return {describePoll(context.pollThread.get()),
            describeUpstream(endpoints),
            describeWorkers("RcvThrStats: ", context.receiveWorkers),
            describeWorkers("SndThrStats ", context.sendWorkers),
            describeTotals(endpoints.size(), context),
            describeDownstream(context.downstreamEndpoint.load()),
            describeLateral(context.lateralEndpoint.load())};
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): all handlers have this signature.
bool reportStatistics(TokenQueue /*tokens*/, const std::shared_ptr<ForwarderContext>& context) {
    if (!logEnabled(LogLevel::info)) {
        return true;
    }
    // A write may block until the log's reader reads. No endpoint is held meanwhile, so that the
    // sockets of removed flows are closed.
    for (const std::string& section : describeAll(*context)) {
        logInfo(section);
    }
    return true;
}

}  // namespace vesk
