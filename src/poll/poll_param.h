// What the poll loop and its workers share: one queue for each worker, and the loop's own counters.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/counter.h"
#include "base/sync.h"
#include "base/thread_control.h"
#include "base/unique_fd.h"
#include "log/log.h"

namespace vesk {

/// Room that lists of ready descriptors begin with: under an ordinary load none has to grow.
inline constexpr std::size_t usualReadyCount = 128;

/// Receives what is ready on one descriptor. `keep` comes in true; left so, the descriptor is
/// served again in the next pass. A positive result is added to the worker's received total.
using ReceiveFunction = std::function<int(int fd, bool& keep, std::uint32_t workerParameter)>;

/// Does what the receive function put off during a pass. `lines` are written next, if there are
/// any, which may take as long as the log's reader likes. The result is how long the worker may
/// wait for descriptors before this is called again; none for as long as it takes.
using PassEndFunction =
    std::function<std::optional<std::chrono::milliseconds>(const LogDelay& lines)>;

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
    /// Slept after each pass, in microseconds; 0 for no pause. Kept: nothing sets it today.
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

/// Ends the threads in list order, then empties the list. False where one was left running.
bool stopThreads(PollParams& threads);

/// The poll loop's parameters, and the counters that it alone writes.
struct PollThreadParam {
    PollThreadParam(int channel, PollParams readWorkers, PollParams writeWorkers)
        : epollSet(epoll_create(1)),
          epollSetError(epollSet ? 0 : errno),
          msgchanfd(channel),
          readQueues(std::move(readWorkers)),
          writeQueues(std::move(writeWorkers)) {}

    /// Made here, before any command is read: while a listening endpoint is being closed, no other
    /// thread may make descriptors (see closeEndpointSockets).
    const UniqueFd epollSet;
    /// Why there is no set; 0 where there is one. Reported by the loop.
    const int epollSetError;
    /// The loop's end of the message channel.
    const int msgchanfd;
    /// Lists of its own, constant once the thread runs: main empties the context's lists.
    PollParams readQueues;
    unsigned long readStart = 0;
    PollParams writeQueues;
    unsigned long writeStart = 0;

    Counter RdReadyNr;
    Counter WrReadyNr;
    Counter ErrorNr;
    /// Descriptors armed at present.
    std::atomic<std::int32_t> ActiveEvtNr{0};

    /// Deletions dealt with, whatever came of them. Not reported: it tells whoever releases many
    /// endpoints how far the loop is.
    Counter deletions;

    /// Set before the channel is retired: by the thread, when the loop no longer touches any
    /// descriptor, or by main, also where it could not stop the thread.
    std::atomic<bool> ended{false};

    /// Last, so that it is stopped before anything it uses goes.
    CancellableThread thread;
};

}  // namespace vesk
