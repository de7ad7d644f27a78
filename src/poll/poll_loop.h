// The loop of the poll thread: it watches descriptors and hands ready ones to the queues of the
// workers. Only this thread changes the epoll set; other threads ask it through the message
// channel. The loop handles descriptors and callables, but no datagrams.
//
// Descriptors are armed edge-triggered and for one event. After an event a descriptor reports
// nothing until the worker that drained it asks for it to be armed again, so one worker at a time
// has it.
#pragma once

#include <functional>
#include <vector>

#include "poll/poll_param.h"

namespace vesk {

using ReadyCallback = std::function<void(const std::vector<int>& fds)>;

/// Runs until it is cancelled, which happens only while it waits, or until the wait fails: then
/// -errno. Returns 0 if an event comes after the main thread has set `ended` and retired the
/// channel.
int pollLoop(PollThreadParam& param, const ReadyCallback& onRead, const ReadyCallback& onWrite,
             const ReadyCallback& onError);

/// The body of the poll thread: pollLoop with the callbacks below. If the loop ends by itself, the
/// channel is retired, so that no other thread waits for it.
void runPollThread(PollThreadParam& param);

/// Distributes a batch over the queues in turn, beginning with queue `start`, and increases `start`
/// by the size of the batch. Each queue that gets descriptors is locked once and its worker woken
/// at most once.
void distributeReadyFds(const std::vector<int>& fds, const PollParams& queues,
                        unsigned long& start);

/// Does nothing: an error or hang-up is counted in `ErrorNr`, and reading the socket returns it.
/// Kept: "Epoll got error while monitoring these sockets:" is never logged, and the descriptors are
/// left unchanged.
void reportPollErrors(const std::vector<int>& fds);

}  // namespace vesk
