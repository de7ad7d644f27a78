#include "app/start_threads.h"

#include <cerrno>
#include <ios>
#include <thread>
#include <utility>
#include <vector>

#include "app/shut_down.h"
#include "context/forwarder_context.h"
#include "datapath/upstream.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/lifecycle/endpoint_release.h"
#include "poll/poll_loop.h"
#include "poll/receive_worker.h"
#include "tasks/flow_cleanup.h"
#include "tasks/periodic_task.h"

namespace vesk {

namespace {

const unsigned receiveThreadCount = std::thread::hardware_concurrency();

std::shared_ptr<PollParam> makeReceiveWorker(const std::shared_ptr<ForwarderContext>& context) {
    const auto receiver = std::make_shared<UpstreamReceiver>(context);
    return std::make_shared<PollParam>(
        [receiver](int fd, bool& keep, std::uint32_t /*workerParameter*/) {
            return upstreamSocketRecv(fd, keep, *receiver);
        },
        [receiver](const LogDelay& lines) { return receiver->endPass(lines); });
}

/// Stops the workers after one failed to start with `error`. Kept: errno, not that error, decides
/// the exit status; if errno is 0 the process continues without workers.
StartFailure giveUpReceiveWorkers(int error, int errnoThen, ForwarderContext& context) {
    logError("Failed to create Upstream Recv Threads, Error: ", errorText(error));
    stopWorkers(context);
    if (errnoThen == 0) {
        return std::nullopt;
    }
    logError("Failed to create upstream threads");
    return -errnoThen;
}

StartFailure startReceiveWorkers(const std::shared_ptr<ForwarderContext>& context) {
    unsigned count = receiveThreadCount;
    if (count < 1) {
        logError("Number of Receive threads cannot be zero. Using 1 thread instead!");
        count = 1;
    }
    for (unsigned i = 0; i < count; ++i) {
        const std::shared_ptr<PollParam> worker = makeReceiveWorker(context);
        const int error = worker->thread.start([worker] { runReceiveWorker(*worker); });
        if (error != 0) {
            return giveUpReceiveWorkers(error, errno, *context);
        }
        logInfo("created upstream recvThread ", worker->thread.id());
        context->receiveWorkers.push_back(worker);
    }
    return std::nullopt;
}

StartFailure startPollThread(ForwarderContext& context) {
    context.pollThread = std::make_shared<PollThreadParam>(
        context.serverPollSock.get(), context.receiveWorkers, context.sendWorkers);
    PollThreadParam& param = *context.pollThread;
    if (param.thread.start([owned = context.pollThread] { runPollThread(*owned); }) != 0) {
        const int error = errno;
        logError("Failed to create pollLoop thread: ", errorText(error));
        return -error;
    }
    logInfo("Created pollLoop thread: ", std::hex, param.thread.id());
    return std::nullopt;
}

StartFailure startCleanUpTask(const Arguments& arguments, ForwarderContext& context) {
    constexpr const char* name = "FlowCleanUpTask";
    const CleanUpSwitches switches = arguments.cleanUp;
    context.cleanUpTask = std::make_shared<PeriodicTask>(
        name, arguments.cleanUpInterval, [weakContext = context.weak_from_this(), switches] {
            if (const std::shared_ptr<ForwarderContext> held = weakContext.lock()) {
                cleanUpFlows(*held->endpointManager, switches,
                             [&held](std::vector<EndpointPtr> expired) {
                                 releaseEndpoints(std::move(expired), held);
                             });
            }
        });
    if (context.cleanUpTask->start() != 0) {
        const int error = errno;
        logError("Failed to create periodic task [", name, "] thread: ", errorText(error));
        return -error;
    }
    logInfo("Created periodic task [", name, "] thread: ", std::hex,
            context.cleanUpTask->threadId(), std::dec, "; main/aux flow cleanup switches [",
            int{switches.main}, "/", int{switches.aux}, "]");
    return std::nullopt;
}

}  // namespace

StartFailure startThreads(const Arguments& arguments,
                          const std::shared_ptr<ForwarderContext>& context) {
    StartFailure failure = startReceiveWorkers(context);
    if (!failure) {
        failure = startPollThread(*context);
    }
    if (!failure) {
        failure = startCleanUpTask(arguments, *context);
    }
    return failure;
}

}  // namespace vesk
