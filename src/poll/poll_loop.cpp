#include "poll/poll_loop.h"

#include <algorithm>
#include <utility>

#include "poll/epoll_set.h"
#include "poll/linger.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

void callUnlessEmpty(const ReadyCallback& callback, const std::vector<int>& fds) {
    if (!fds.empty()) {
        callback(fds);
    }
}

}  // namespace

// The loop yields only after a single ready socket. When this thread runs again, the worker has
// usually drained the socket and asked for it to be armed again, so the record can be taken without
// a wait and a wake-up. With more sockets ready, a yield costs more than it gains, since requests
// accumulate meanwhile.
int pollLoop(PollThreadParam& param, const ReadyCallback& onRead, const ReadyCallback& onWrite,
             const ReadyCallback& onError) {
    EpollSet set(param);
    int result = set.watchChannel();
    ReadyLists ready;
    Lingerer lingerer;
    while (result == 0) {
        result = set.wait();
        if (result == 0 && param.ended.load(std::memory_order_acquire)) {
            // The channel is retired, and would be reported readable forever although it is empty.
            return 0;
        }
        if (result == 0) {
            set.sortBatch(ready);
            callUnlessEmpty(onRead, ready.read);
            callUnlessEmpty(onWrite, ready.write);
            callUnlessEmpty(onError, ready.error);
            if (ready.read.size() == 1 && lingerer.linger()) {
                set.takeEarlyRecords();
            }
        }
    }
    return result;
}

void runPollThread(PollThreadParam& param) {
    const auto dealTo = [](PollParams queues, unsigned long start) -> ReadyCallback {
        return [queues = std::move(queues), start](const std::vector<int>& fds) mutable {
            distributeReadyFds(fds, queues, start);
        };
    };
    pollLoop(param, dealTo(param.readQueues, param.readStart),
             dealTo(param.writeQueues, param.writeStart), reportPollErrors);
    param.ended.store(true, std::memory_order_release);
    retirePollChannel(param.msgchanfd);
}

void distributeReadyFds(const std::vector<int>& fds, const PollParams& queues,
                        unsigned long& start) {
    const std::size_t served = std::min(fds.size(), queues.size());
    for (std::size_t first = 0; first < served; ++first) {
        PollParam& worker = *queues[(start + first) % queues.size()];
        bool waits = false;
        {
            const MutexLock lock(worker.mutex);
            for (std::size_t i = first; i < fds.size(); i += queues.size()) {
                worker.queue.push_back(fds[i]);
            }
            waits = std::exchange(worker.waiting, false);
        }
        // Posted after the lock is released; otherwise the woken worker would first have to wait
        // for it.
        if (waits) {
            worker.wakeUp.post();
        }
    }
    start += fds.size();
}

void reportPollErrors(const std::vector<int>& /*fds*/) {}

}  // namespace vesk
