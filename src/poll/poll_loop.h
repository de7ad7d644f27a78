// The epoll thread: watches descriptors, hands the ready ones to the workers' queues. The only
// thread that touches the epoll set; all others ask it through the message channel. Knows
// descriptors and callables, nothing of datagrams.
//
// Descriptors are armed edge-triggered and for one event: one that fired stays silent until whoever
// drained it asks for it to be armed again, so that it is in one worker's hands at a time.
#pragma once

#include <functional>
#include <vector>

#include "poll/poll_param.h"

namespace vesk {

using ReadyCallback = std::function<void(const std::vector<int>& fds)>;

/// Runs until cancelled (while it waits), or until it can no longer wait; then -errno. Returns 0
/// after an event where `ended` is set: main has retired the channel.
int pollLoop(PollThreadParam& param, const ReadyCallback& onRead, const ReadyCallback& onWrite,
             const ReadyCallback& onError);

/// The poll thread's entry: pollLoop with the callbacks below. Should the loop end by itself,
/// nobody is left waiting for it.
void runPollThread(PollThreadParam& param);

/// Deals one batch out to the queues in turn, beginning at `start`, and moves `start` on by the
/// size of the batch. Each queue that gets any is locked and signalled once.
void distributeReadyFds(const std::vector<int>& fds, const PollParams& queues,
                        unsigned long& start);

/// Does nothing: an error or hang-up shows in `ErrorNr` and, when the socket is read, in the result
/// of that. Kept: "Epoll got error while monitoring these sockets:" is never logged, and the
/// descriptors stay as they are.
void reportPollErrors(const std::vector<int>& fds);

}  // namespace vesk
