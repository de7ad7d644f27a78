// What the poll loop and its workers share: one queue for each worker, and the loop's own counters.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "base/counter.h"
#include "base/sync.h"
#include "base/thread_control.h"
#include "base/unique_fd.h"

namespace vesk {

/// Room that lists of ready descriptors begin with: under an ordinary load none has to grow.
inline constexpr std::size_t usualReadyCount = 128;

/// Receives what is ready on one descriptor. `keep` comes in true; left so, the descriptor is
/// served again in the next pass. A positive result is added to the worker's received total.
using ReceiveFunction = std::function<int(int fd, bool& keep, std::uint32_t workerParameter)>;

/// Does what the receive function put off during a pass; adds to `serving` what has to be served
/// again.
using PassEndFunction = std::function<void(std::vector<int>& serving)>;

/// One worker with its queue. The poll loop fills the queue, the worker empties it.
struct PollParam {
    explicit PollParam(ReceiveFunction receiveFunction, PassEndFunction passEndFunction = {})
        : receive(std::move(receiveFunction)), passEnd(std::move(passEndFunction)) {}

    Mutex mutex;
    std::deque<int> queue VESK_GUARDED_BY(mutex);
    /// Whether the worker has found nothing to do and waits, or is about to.
    bool waiting VESK_GUARDED_BY(mutex) = false;
    /// Posted once by whoever finds `waiting` set, and clears it.
    WakeUp wakeUp;

    // Constant while the worker runs.

    /// Handed through to every receive call. Kept: the receive function of today has no use for it.
    std::uint32_t workerParameter = 0;
    const ReceiveFunction receive;
    /// May be empty.
    const PassEndFunction passEnd;
    /// Slept after each pass, in microseconds; 0 for no pause.
    std::uint32_t pause = 0;

    // Written by the worker, read by the report.

    Counter receivedTotal;
    Counter wakeCount;
    /// The lengths of the queue at each wake, added up; as wide as it is reported.
    std::atomic<std::uint32_t> queueDepthSum{0};

    /// Last, so that it is stopped before anything it uses goes.
    CancellableThread thread;
};

using PollParams = std::vector<std::shared_ptr<PollParam>>;

/// Ends the threads in list order, then empties the list.
void stopThreads(PollParams& threads);

/// The poll loop's parameters, and the counters that it alone writes.
struct PollThreadParam {
    PollThreadParam(int channel, const PollParams& readWorkers, const PollParams& writeWorkers)
        : epollSet(epoll_create(1)),
          msgchanfd(channel),
          readQueues(readWorkers),
          writeQueues(writeWorkers) {}

    /// Made here, before any command is read: while a listening endpoint is being closed, no other
    /// thread may make descriptors (see closeEndpointSockets).
    const UniqueFd epollSet;
    /// The loop's end of the message channel.
    const int msgchanfd;
    const PollParams& readQueues;
    unsigned long readStart = 0;
    const PollParams& writeQueues;
    unsigned long writeStart = 0;

    Counter RdReadyNr;
    Counter WrReadyNr;
    Counter ErrorNr;
    /// Descriptors armed at present.
    std::atomic<std::int32_t> ActiveEvtNr{0};

    /// Set when the loop touches no descriptor any more, before the channel is retired.
    std::atomic<bool> ended{false};

    /// Last, so that it is stopped before anything it uses goes.
    CancellableThread thread;
};

}  // namespace vesk
