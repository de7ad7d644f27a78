// The loop of a thread that serves one listening endpoint: it receives datagrams in batches and
// passes each one on. Run by the downstream and the lateral receive thread.
#pragma once

#include <functional>
#include <string_view>

#include "datapath/received_datagram.h"
#include "net/endpoint.h"

namespace vesk {

struct ReceiveThread {
    /// The endpoint's name in log lines.
    std::string_view name;
    /// Handles one datagram, with an empty return path. The datagram's buffer is valid until
    /// `endBatch`.
    std::function<void(const ReceivedDatagram& datagram)> handle;
    /// Sends what is held, and releases all endpoints. Called after each batch, and before a line
    /// is logged, since that may block until the log's reader reads.
    std::function<void()> endBatch;
};

/// Serves the endpoint until the thread is cancelled. Counts each datagram received, and logs
/// failed receive calls.
[[noreturn]] void serveListener(VeskEndpointDescriptor& endpoint, const ReceiveThread& thread);

}  // namespace vesk
