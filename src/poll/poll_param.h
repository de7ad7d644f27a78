// What the poll loop and its workers share: a queue for each worker, and the counters of both. Made
// on the main thread.
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

/// Initial capacity of lists of ready descriptors. Under ordinary load no list has to grow.
inline constexpr std::size_t usualReadyCount = 128;

/// Receives from one ready descriptor. `keep` is true on entry; if it is still true on return, the
/// descriptor is served again in the next pass. A positive result is added to the worker's received
/// total.
using ReceiveFunction = std::function<int(int fd, bool& keep, std::uint32_t workerParameter)>;

/// Does what the receive function deferred during a pass. The lines held by `lines` are written
/// next, which may block until the log's reader reads. The result is the longest wait for
/// descriptors before this is called again; none if there is no limit.
using PassEndFunction =
    std::function<std::optional<std::chrono::milliseconds>(const LogDelay& lines)>;

/// One worker with its queue. The poll loop fills the queue, the worker empties it.
struct PollParam {
    explicit PollParam(ReceiveFunction receiveFunction, PassEndFunction passEndFunction = {})
        : receive(std::move(receiveFunction)), passEnd(std::move(passEndFunction)) {}

    Mutex mutex;
    std::deque<int> queue VESK_GUARDED_BY(mutex);
    /// Whether the worker has found nothing to do and waits or is about to wait.
    bool waiting VESK_GUARDED_BY(mutex) = false;
    /// Posted by the thread that finds `waiting` set and clears it.
    WakeUp wakeUp;

    // Constant while the worker runs.

    /// Passed to each receive call. Kept: the present receive function ignores it.
    std::uint32_t workerParameter = 0;
    const ReceiveFunction receive;
    /// May be empty.
    const PassEndFunction passEnd;
    /// Pause after each pass, in microseconds; 0 for none. Kept: at present nothing sets it.
    std::uint32_t pause = 0;

    // Written by the worker, read by the report.

    Counter receivedTotal;
    Counter wakeCount;
    /// The sum of the queue's lengths at each wake-up. 32 bits, as reported; it wraps.
    std::atomic<std::uint32_t> queueDepthSum{0};

    /// Last, so that the thread is stopped before anything that it uses is destroyed.
    CancellableThread thread;
};

using PollParams = std::vector<std::shared_ptr<PollParam>>;

/// Stops the threads in list order, then empties the list. False if a thread was left running.
bool stopThreads(PollParams& threads);

/// The parameters of the poll loop, and the counters that only it writes.
struct PollThreadParam {
    PollThreadParam(int channel, PollParams readWorkers, PollParams writeWorkers)
        : epollSet(epoll_create(1)),
          epollSetError(epollSet ? 0 : errno),
          msgchanfd(channel),
          readQueues(std::move(readWorkers)),
          writeQueues(std::move(writeWorkers)) {}

    /// Made here, before any command is read, since no other thread may make descriptors while a
    /// listening endpoint is closed (see closeEndpointSockets).
    const UniqueFd epollSet;
    /// The errno if the set could not be made, else 0. Logged by the loop.
    const int epollSetError;
    /// The loop's end of the message channel.
    const int msgchanfd;
    /// Copies of the context's lists, since the main thread empties those. Constant while the
    /// thread runs.
    /// Kept: the start indexes are part of the interface. Nothing changes them, since the loop's
    /// callbacks count in copies.
    PollParams readQueues;
    unsigned long readStart = 0;
    PollParams writeQueues;
    unsigned long writeStart = 0;

    Counter RdReadyNr;
    Counter WrReadyNr;
    Counter ErrorNr;
    /// Descriptors armed at present.
    std::atomic<std::int32_t> ActiveEvtNr{0};

    /// Deletions handled, successful or not. Not reported: a thread that releases many endpoints
    /// reads from it how far the loop is.
    Counter deletions;

    /// Set before the channel is retired: by the poll thread, when the loop no longer uses any
    /// descriptor, or by the main thread, even if it could not stop the poll thread.
    std::atomic<bool> ended{false};

    /// Last, so that the thread is stopped before anything that it uses is destroyed.
    CancellableThread thread;
};

}  // namespace vesk
