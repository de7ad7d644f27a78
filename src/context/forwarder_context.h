// What all threads share: one context for the life of the process, made at start-up for one framing
// version. The main thread, the receive threads and the workers hold it by shared reference.
//
// It is a plain record. Only source files include it, never a header.
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
    /// The thread has a lease; the main thread has the last reference to the endpoint.
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
    /// How the source address of IPv4 datagrams is chosen, towards peers and towards upstream.
    const Ipv4Source ipv4Source;
    const std::shared_ptr<EndpointManager> endpointManager;

    // Set by the main thread at start-up and cleared at shut-down; unchanged in between.

    /// The senders' end and the poll loop's end of the message channel.
    UniqueFd pollSocket;
    UniqueFd serverPollSock;
    std::shared_ptr<PollThreadParam> pollThread;
    PollParams receiveWorkers;
    // Kept: always empty; the report has a section for send workers.
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

    /// Held from the look-up of a label's endpoint until the endpoint is ready for use: if
    /// two threads need the same endpoint, one makes it and the other finds it ready.
    Mutex endpointCreation;

    // Used by the main thread only. There are several listeners if "start" was sent twice without
    // "stop"; each keeps the endpoint with which it was started. The entry of a thread that could
    // not be stopped stays until the process ends.

    std::list<DownstreamListener> downstreamListeners;
    /// Whether a worker could not be stopped, at a failed start or at the shut-down. A member since
    /// the shut-down may come long after the failed start, and the worker is no longer in the
    /// lists.
    bool workerLeftRunning = false;
};

}  // namespace vesk
