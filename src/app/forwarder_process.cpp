#include "app/forwarder_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ios>
#include <thread>

#include "app/core_dumps.h"
#include "app/forwarder_context.h"
#include "control/command_dispatch.h"
#include "control/command_loop.h"
#include "control/crypto_provider.h"
#include "control/forwarder_commands.h"
#include "datapath/upstream.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "poll/poll_channel.h"
#include "poll/poll_loop.h"
#include "poll/receive_worker.h"
#include "tasks/periodic_task.h"

namespace vesk {

namespace {

constexpr int failureStatus = -1;

const unsigned receiveThreadCount = std::thread::hardware_concurrency();

// ---- Start-up. Each step returns 0, or the exit status that ends the process. ----

/// A worker's record, its thread running; null, after logging, where there is none to be had.
std::shared_ptr<PollParam> startReceiveWorker(const std::shared_ptr<ForwarderContext>& context) {
    const auto receiver = std::make_shared<UpstreamReceiver>(context);
    auto worker = std::make_shared<PollParam>(
        [receiver](int fd, bool& keep, std::uint32_t /*workerParameter*/) {
            return upstreamSocketRecv(fd, keep, *receiver);
        },
        [receiver](std::vector<int>& serving) { receiver->endPass(serving); });
    const int error = worker->thread.start([param = worker.get()] { runReceiveWorker(*param); });
    if (error != 0) {
        const int savedErrno = errno;
        logError("Failed to create Upstream Recv Threads, Error: ", errorText(error));
        errno = savedErrno;
        return nullptr;
    }
    return worker;
}

int startReceiveWorkers(const std::shared_ptr<ForwarderContext>& context) {
    unsigned count = receiveThreadCount;
    if (count < 1) {
        logError("Number of Receive threads cannot be zero. Using 1 thread instead!");
        count = 1;
    }
    for (unsigned i = 0; i < count; ++i) {
        std::shared_ptr<PollParam> worker = startReceiveWorker(context);
        if (!worker) {
            const int error = errno;
            stopThreads(context->receiveWorkers);
            // Kept: errno decides, not the result of the thread's creation. With errno clear the
            // process goes on without workers.
            if (error != 0) {
                logError("Failed to create upstream threads");
            }
            return -error;
        }
        logInfo("created upstream recvThread ", worker->thread.id());
        context->receiveWorkers.push_back(std::move(worker));
    }
    return 0;
}

int startPollThread(ForwarderContext& context) {
    context.pollThread = std::make_shared<PollThreadParam>(
        context.serverPollSock.get(), context.receiveWorkers, context.sendWorkers);
    PollThreadParam& param = *context.pollThread;
    if (param.thread.start([&param] { runPollThread(param); }) != 0) {
        const int error = errno;
        logError("Failed to create pollLoop thread: ", errorText(error));
        return -error;
    }
    logInfo("Created pollLoop thread: ", std::hex, param.thread.id());
    return 0;
}

int startCleanUpTask(const Arguments& arguments, ForwarderContext& context) {
    constexpr const char* name = "FlowCleanUpTask";
    const CleanUpSwitches switches = arguments.cleanUp;
    context.cleanUpTask = std::make_shared<PeriodicTask>(
        name, arguments.cleanUpIntervalNanoseconds,
        [manager = context.endpointManager, switches] { cleanUpFlows(*manager, switches); });
    if (context.cleanUpTask->start() != 0) {
        const int error = errno;
        logError("Failed to create periodic task [", name, "] thread: ", errorText(error));
        return -error;
    }
    logInfo("Created periodic task [", name, "] thread: ", std::hex,
            context.cleanUpTask->threadId(), std::dec, "; main/aux flow cleanup switches [",
            int{switches.main}, "/", int{switches.aux}, "]");
    return 0;
}

int startThreads(const Arguments& arguments, const std::shared_ptr<ForwarderContext>& context) {
    int status = startReceiveWorkers(context);
    if (status == 0) {
        status = startPollThread(*context);
    }
    if (status == 0) {
        status = startCleanUpTask(arguments, *context);
    }
    return status;
}

// ---- Shut-down, in this order. ----

/// The receive threads that make endpoints and hand datagrams to them.
void stopReceiving(ForwarderContext& context) {
    stopForwarder(context);
    context.lateral.thread.stop();
}

/// The exit status that the end of the poll thread makes of `status`.
int stopPollThread(ForwarderContext& context, int status) {
    if (!context.pollThread || !context.pollThread->thread.started()) {
        return status;
    }
    const int result = context.pollThread->thread.stop();
    // The workers and the clean-up task still run, and may be waiting for room on the channel.
    retirePollChannel(context.serverPollSock.get());
    return result;
}

void stopWorkers(ForwarderContext& context) {
    stopThreads(context.receiveWorkers);
    stopThreads(context.sendWorkers);
}

void stopCleanUpTask(ForwarderContext& context) {
    if (context.cleanUpTask) {
        context.cleanUpTask->stop();
    }
}

int shutDown(ForwarderContext& context, int status) {
    stopReceiving(context);
    status = stopPollThread(context, status);
    stopWorkers(context);
    stopCleanUpTask(context);
    context.pollSocket.reset();
    context.serverPollSock.reset();
    return status;
}

/// From the first thread to the last; the context goes with the caller's share.
int serve(const Arguments& arguments, const std::shared_ptr<ForwarderContext>& context) {
    int status = createPollSocks(context->pollSocket, context->serverPollSock);
    if (status != 0) {
        logError("Failed to create poll socks");
        return status;
    }
    status = startThreads(arguments, context);
    if (status == 0) {
        status = cltMessageLoop(
            [&context](std::string_view line) { dispatchCommand(line, context); }, stdin);
    }
    return shutDown(*context, status);
}

}  // namespace

int runForwarder(std::span<const char* const> texts) {
    // A log reader that went away must not end the process: traffic is worth more than its log.
    std::signal(SIGPIPE, SIG_IGN);
    allowCoreDumps();
    const std::optional<Arguments> arguments = parseArguments(texts);
    if (!arguments) {
        return failureStatus;
    }
    if (!initFipsMode()) {
        logError("Failed to initialize FIPS mode!");
        return failureStatus;
    }
    logInfo("Starting forwarder with UDPv", arguments->framingVersion);
    return serve(*arguments, std::make_shared<ForwarderContext>(arguments->framingVersion));
}

}  // namespace vesk
