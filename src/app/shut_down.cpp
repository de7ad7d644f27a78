#include "app/shut_down.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "context/forwarder_context.h"
#include "control/forwarder_commands.h"
#include "poll/poll_channel.h"
#include "tasks/periodic_task.h"

namespace vesk {

namespace {

/// Stops the downstream and the lateral receive threads, which make the endpoints.
void stopReceiving(ForwarderContext& context) {
    stopForwarder(context);
    context.lateral.thread.stop();
}

/// Stops the poll thread. Returns the result, or `status` if there was no thread to stop.
int stopPollThread(ForwarderContext& context, int status) {
    if (!context.pollThread || !context.pollThread->thread.started()) {
        return status;
    }
    const int result = context.pollThread->thread.stop();
    // The workers and the clean-up task still run and may wait for room on the channel. A poll
    // thread that could not be stopped reads this flag after its next event and ends its loop.
    context.pollThread->ended.store(true, std::memory_order_release);
    retirePollChannel(context.serverPollSock.get());
    return result;
}

void stopCleanUpTask(ForwarderContext& context) {
    if (context.cleanUpTask) {
        context.cleanUpTask->stop();
    }
}

bool anyThreadLeftRunning(const ForwarderContext& context) {
    return std::ranges::any_of(context.downstreamListeners,
                               [](const auto& it) { return it.thread.leftRunning(); }) ||
           context.lateral.thread.leftRunning() ||
           (context.pollThread && context.pollThread->thread.leftRunning()) ||
           context.workerLeftRunning || (context.cleanUpTask && context.cleanUpTask->leftRunning());
}

/// Ends the process although threads that could not be stopped still run. A return from main would
/// close and destroy what they use: descriptors, the context, and what libraries destroy at exit,
/// such as libcrypto's digests.
[[noreturn]] void exitWithThreadsRunning(int status) {
    static_cast<void>(std::fflush(stdout));
    _exit(status);
}

}  // namespace

void stopWorkers(ForwarderContext& context) {
    for (PollParams* const workers : {&context.receiveWorkers, &context.sendWorkers}) {
        if (!stopThreads(*workers)) {
            context.workerLeftRunning = true;
        }
    }
}

int shutDown(ForwarderContext& context, int status) {
    context.shuttingDown.store(true, std::memory_order_release);
    stopReceiving(context);
    status = stopPollThread(context, status);
    stopWorkers(context);
    stopCleanUpTask(context);
    if (anyThreadLeftRunning(context)) {
        exitWithThreadsRunning(status);
    }
    // Breaks a cycle: the context holds it, it holds the workers, and they hold the context.
    context.pollThread.reset();
    context.pollSocket.reset();
    context.serverPollSock.reset();
    return status;
}

}  // namespace vesk
