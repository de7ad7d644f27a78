#include "app/forwarder_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ios>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "app/arguments.h"
#include "app/core_dumps.h"
#include "app/environment.h"
#include "context/forwarder_context.h"
#include "control/command_dispatch.h"
#include "control/command_loop.h"
#include "control/crypto_provider.h"
#include "control/forwarder_commands.h"
#include "datapath/upstream.h"
#include "log/error_text.h"
#include "log/log.h"
#include "log/printf_log.h"
#include "net/lifecycle/endpoint_release.h"
#include "poll/poll_channel.h"
#include "poll/poll_loop.h"
#include "poll/receive_worker.h"
#include "tasks/flow_cleanup.h"
#include "tasks/periodic_task.h"

namespace vesk {

namespace {

constexpr int failureStatus = -1;

const unsigned receiveThreadCount = std::thread::hardware_concurrency();

void stopWorkers(ForwarderContext& context) {
    for (PollParams* const workers : {&context.receiveWorkers, &context.sendWorkers}) {
        if (!stopThreads(*workers)) {
            context.workerLeftRunning = true;
        }
    }
}

// ---- Start-up. A step that fails gives the exit status, which may be 0. ----

using Failure = std::optional<int>;

/// Keeps the numbers of closed standard descriptors from going to sockets, which would then be read
/// for commands or written full of log lines. Reading and writing them fails as before.
void occupyStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1) {
            // It gets the lowest free number, which is this one, and keeps it while the process
            // lives.
            static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

std::shared_ptr<PollParam> makeReceiveWorker(const std::shared_ptr<ForwarderContext>& context) {
    const auto receiver = std::make_shared<UpstreamReceiver>(context);
    return std::make_shared<PollParam>(
        [receiver](int fd, bool& keep, std::uint32_t /*workerParameter*/) {
            return upstreamSocketRecv(fd, keep, *receiver);
        },
        [receiver](const LogDelay& lines) { return receiver->endPass(lines); });
}

/// Gives up the workers after `error` kept one from starting. Kept: errno, and not that error,
/// decides; with errno clear the process goes on without workers.
Failure giveUpReceiveWorkers(int error, int errnoThen, ForwarderContext& context) {
    logError("Failed to create Upstream Recv Threads, Error: ", errorText(error));
    stopWorkers(context);
    if (errnoThen == 0) {
        return std::nullopt;
    }
    logError("Failed to create upstream threads");
    return -errnoThen;
}

Failure startReceiveWorkers(const std::shared_ptr<ForwarderContext>& context) {
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

Failure startPollThread(ForwarderContext& context) {
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

Failure startCleanUpTask(const Arguments& arguments, ForwarderContext& context) {
    constexpr const char* name = "FlowCleanUpTask";
    const CleanUpSwitches switches = arguments.cleanUp;
    context.cleanUpTask = std::make_shared<PeriodicTask>(
        name, arguments.cleanUpIntervalNanoseconds,
        [weakContext = context.weak_from_this(), switches] {
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

Failure startThreads(const Arguments& arguments, const std::shared_ptr<ForwarderContext>& context) {
    Failure failure = startReceiveWorkers(context);
    if (!failure) {
        failure = startPollThread(*context);
    }
    if (!failure) {
        failure = startCleanUpTask(arguments, *context);
    }
    return failure;
}

// ---- Shut-down, in this order. ----

/// The receive threads that make endpoints and hand datagrams to them.
void stopReceiving(ForwarderContext& context) {
    stopForwarder(context);
    context.lateral.thread.stop();
}

/// The exit status that stopping the poll thread makes of `status`.
int stopPollThread(ForwarderContext& context, int status) {
    if (!context.pollThread || !context.pollThread->thread.started()) {
        return status;
    }
    const int result = context.pollThread->thread.stop();
    // The workers and the clean-up task still run, and may be waiting for room on the channel. A
    // poll thread that could not be stopped reads this flag after its next event and ends its loop.
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

/// Ends the process while threads that could not be stopped still run. A return from main would
/// close and destroy what they use: the descriptors, the context, and what libraries tear down at
/// exit, such as libcrypto's digests.
[[noreturn]] void exitWithThreadsRunning(int status) {
    static_cast<void>(std::fflush(stdout));
    _exit(status);
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
    // It holds the workers, and they hold the context.
    context.pollThread.reset();
    context.pollSocket.reset();
    context.serverPollSock.reset();
    return status;
}

/// From the first thread to the last; the context goes with the caller's share.
int serve(const Arguments& arguments, const std::shared_ptr<ForwarderContext>& context) {
    const int created = createPollSocks(context->pollSocket, context->serverPollSock);
    if (created != 0) {
        logError("Failed to create poll socks");
        return created;
    }
    if (const Failure failure = startThreads(arguments, context)) {
        return shutDown(*context, *failure);
    }
    const int status = cltMessageLoop(
        [&context](std::string_view line) { dispatchCommand(line, context); }, stdin);
    return shutDown(*context, status);
}

}  // namespace

int runForwarder(std::span<const char* const> texts) {
    occupyStandardDescriptors();
    // A log reader that went away must not end the process: traffic is worth more than its log.
    std::signal(SIGPIPE, SIG_IGN);
    loadTimeZone();
    allowCoreDumps();
    const std::optional<Arguments> arguments = parseArguments(texts);
    if (!arguments) {
        return failureStatus;
    }
    if (!initFipsMode()) {
        logError("Failed to initialize FIPS mode!");
        return failureStatus;
    }
    loadDigests();
    logInfo("Starting forwarder with UDPv", arguments->framingVersion);
    return serve(*arguments, std::make_shared<ForwarderContext>(arguments->framingVersion,
                                                                ipv4SourceFromEnvironment()));
}

}  // namespace vesk
