// What every thread shares: one context for the life of the process, made at start-up for one
// framing version and held by shared reference by the main thread and by every thread it starts.
//
// A record of names with little code of its own. Only source files include it, never a header.
#pragma once

#include <list>
#include <memory>

#include "app/lateral_stream.h"
#include "base/sync.h"
#include "base/thread_control.h"
#include "base/unique_fd.h"
#include "net/endpoint.h"
#include "poll/poll_param.h"

namespace vesk {

class EndpointManager;
class PeriodicTask;
struct FramingDescriptor;

/// A downstream receive thread with the endpoint it serves.
struct DownstreamListener {
    /// Held here as well as by the thread, so that it is the main thread that releases it last.
    EndpointPtr endpoint;
    CancellableThread thread;
};

struct ForwarderContext : std::enable_shared_from_this<ForwarderContext> {
    explicit ForwarderContext(int framingVersion);
    ~ForwarderContext();
    ForwarderContext(const ForwarderContext&) = delete;
    ForwarderContext& operator=(const ForwarderContext&) = delete;

    // Constant from start-up to shut-down.

    const FramingDescriptor& framing;
    const std::shared_ptr<EndpointManager> endpointManager;
    /// The senders' end of the message channel, and the poll loop's.
    UniqueFd pollSocket;
    UniqueFd serverPollSock;
    std::shared_ptr<PollThreadParam> pollThread;
    PollParams receiveWorkers;
    /// Reported as send workers; nobody starts any.
    PollParams sendWorkers;
    std::shared_ptr<PeriodicTask> cleanUpTask;

    // Replaced by commands while other threads read them.

    EndpointSlot downstreamEndpoint;
    EndpointSlot lateralEndpoint;
    LateralStream lateral;

    // The main thread's own. More than one listener only where "start" was sent twice without
    // "stop": each goes on with the endpoint it began with.

    std::list<DownstreamListener> downstreamListeners;

    /// Held from looking for a label's endpoint to its being ready for use, so that of two threads
    /// that miss the same one, one makes it and the other uses it ready made.
    Mutex endpointCreation;
};

}  // namespace vesk
