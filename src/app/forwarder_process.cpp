#include "app/forwarder_process.h"

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>

#include "app/arguments.h"
#include "app/core_dumps.h"
#include "app/descriptor_table.h"
#include "app/environment.h"
#include "app/shut_down.h"
#include "app/start_threads.h"
#include "base/standard_descriptors.h"
#include "context/forwarder_context.h"
#include "control/command_dispatch.h"
#include "control/command_loop.h"
#include "control/crypto_provider.h"
#include "log/log.h"
#include "log/printf_log.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

constexpr int failureStatus = -1;

/// Starts the threads, runs the command loop, and shuts down. Returns the exit status.
int serve(const Arguments& arguments, const std::shared_ptr<ForwarderContext>& context) {
    const int created = createPollSocks(context->pollSocket, context->serverPollSock);
    if (created != 0) {
        logError("Failed to create poll socks");
        return created;
    }
    if (const StartFailure failure = startThreads(arguments, context)) {
        return shutDown(*context, *failure);
    }
    const int status = cltMessageLoop(
        [&context](std::string_view line) { dispatchCommand(line, context); }, stdin);
    return shutDown(*context, status);
}

}  // namespace

int runForwarder(std::span<const char* const> texts) {
    occupyStandardDescriptors(ClosedStream::fails);
    // The process must not end if the log's reader closes its end: traffic matters more than the
    // log.
    std::signal(SIGPIPE, SIG_IGN);
    loadTimeZone();
    allowCoreDumps();
    reserveDescriptorTable();
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
