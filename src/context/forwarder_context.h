// What every thread shares: one context for the life of the process, made at start-up for one
// framing version and held by shared reference by the main thread and by every thread it starts.
//
// A record of names with little code of its own. Only source files include it, never a header.
#pragma once

#include <atomic>
#include <list>
#include <memory>

#include "base/sync.h"
#include "base/thread_control.h"
#include "base/unique_fd.h"
#include "context/lateral_stream.h"
#include "net/endpoint_slot.h"
#include "net/local_address.h"
#include "poll/poll_param.h"

namespace vesk {

class EndpointManager;
class PeriodicTask;
struct FramingDescriptor;

/// A downstream receive thread with the endpoint it serves.
struct DownstreamListener {
    /// The thread has a lease; it is the main thread that releases the endpoint last.
    LentEndpoint endpoint;
    CancellableThread thread;
};

struct ForwarderContext : std::enable_shared_from_this<ForwarderContext> {
    explicit ForwarderContext(int framingVersion, Ipv4Source source = Ipv4Source::kernel);
    ~ForwarderContext();
    ForwarderContext(const ForwarderContext&) = delete;
    ForwarderContext& operator=(const ForwarderContext&) = delete;

    // Constant.

    const FramingDescriptor& framing;
    /// Which source address IPv4 replies and upstream requests get.
    const Ipv4Source ipv4Source;
    const std::shared_ptr<EndpointManager> endpointManager;

    // Set by the main thread at start-up and cleared at shut-down; unchanged in between.

    /// The senders' end of the message channel, and the poll loop's.
    UniqueFd pollSocket;
    UniqueFd serverPollSock;
    std::shared_ptr<PollThreadParam> pollThread;
    PollParams receiveWorkers;
    // Kept: reported as send workers, of which there are none.
    PollParams sendWorkers;
    std::shared_ptr<PeriodicTask> cleanUpTask;

    // Set by the main thread, read by others.

    /// Set before the first thread is stopped.
    std::atomic<bool> shuttingDown{false};

    // Changed by commands while other threads read them; each has its own protection.

    EndpointSlot downstreamEndpoint;
    EndpointSlot lateralEndpoint;
    LateralStream lateral;

    // Taken by the receive threads and the workers.

    /// Held from looking for a label's endpoint to its being ready for use, so that of two threads
    /// that miss the same one, one makes it and the other uses it ready made.
    Mutex endpointCreation;

    // Used by the main thread only. There is more than one listener if "start" was sent twice
    // without "stop": each keeps the endpoint that it was started with. The entry of a thread that
    // could not be stopped stays until the process ends.

    std::list<DownstreamListener> downstreamListeners;
    /// Whether a worker could not be stopped; its record is no longer listed.
    bool workerLeftRunning = false;
};

}  // namespace vesk
