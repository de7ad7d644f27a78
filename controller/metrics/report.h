// The figures of one statistics report of the child: ReportParser makes them from the text, and
// ReportTotals adds them up. The names in brackets are those of the report.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace vesk::controller {

/// The datagrams of one socket since it was opened.
struct DatagramCounters {
    std::uint64_t received = 0;        ///< [RxDg]
    std::uint64_t sent = 0;            ///< [TxDg]
    std::uint64_t receiveErrors = 0;   ///< [RxDgError]
    std::uint64_t dropped = 0;         ///< [TxDgDropped]
    std::uint64_t repliesSent = 0;     ///< [DnTxDg]; always 0 downstream
    std::uint64_t repliesDropped = 0;  ///< [DnTxDgDropped]; always 0 downstream

    bool operator==(const DatagramCounters&) const = default;
};

/// All members in the report's order, for code that handles each in the same way.
inline constexpr std::array<std::uint64_t DatagramCounters::*, 6> datagramFields{
    &DatagramCounters::received, &DatagramCounters::sent,        &DatagramCounters::receiveErrors,
    &DatagramCounters::dropped,  &DatagramCounters::repliesSent, &DatagramCounters::repliesDropped};

/// A flow that has a socket, and the counters of that socket.
struct FlowRow {
    std::uint32_t label = 0;
    DatagramCounters counters;
};

struct PollCounters {
    /// Sockets armed at present [ActiveEvtNr]. It is approximate and sometimes slightly negative,
    /// which the report shows as a number near 4294967295.
    std::int32_t armedSockets = 0;
    std::uint64_t readEvents = 0;   ///< [RdReadyNr]
    std::uint64_t writeEvents = 0;  ///< [WrReadyNr]
    std::uint64_t errorEvents = 0;  ///< [ErrorNr]
};

/// One of the threads that receive replies.
struct WorkerCounters {
    std::uint64_t wakeUps = 0;        ///< [WakeNr]
    std::uint32_t queuedSockets = 0;  ///< [ReadyFdNr]; wraps to 0 after 4294967295
    std::uint64_t received = 0;       ///< [DgNr]
};

struct EndpointTotals {
    std::uint64_t sockets = 0;   ///< flows that have a socket [EptNr]
    std::uint64_t received = 0;  ///< by all workers [RxDg]
    std::uint64_t sent = 0;      ///< always 0 [TxDg]
};

/// One complete report. Parts that the child does not have at present are empty.
struct Report {
    std::optional<PollCounters> poll;
    std::vector<FlowRow> flows;  ///< by ascending label
    std::vector<WorkerCounters> workers;
    EndpointTotals totals;
    std::optional<DatagramCounters> downstream;
    std::optional<DatagramCounters> lateral;
};

}  // namespace vesk::controller
