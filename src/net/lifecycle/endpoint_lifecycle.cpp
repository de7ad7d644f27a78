#include "net/lifecycle/endpoint_lifecycle.h"

#include <unistd.h>

#include <cerrno>
#include <ios>

#include "context/forwarder_context.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/endpoint_sockets.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

/// Asks the poll loop to close the descriptor. Closes it here if the loop has ended. False, with
/// errno, if the request fails.
bool deleteFromPollLoop(int fd, const ForwarderContext& context) {
    const int result = pollLoop_del_fd(context.pollSocket.get(), fd);
    if (result != -EPIPE) {
        return result == 0;
    }
    // The loop has ended. This load orders the close after all that the poll thread did. A poll
    // thread that could not be stopped is the exception: it may log one request for a closed
    // number.
    if (context.pollThread) {
        static_cast<void>(context.pollThread->ended.load(std::memory_order_acquire));
    }
    close(fd);
    return true;
}

}  // namespace

void endpointSocketDestructor(int rdsockfd, int wrsockfd,
                              const std::shared_ptr<ForwarderContext>& context) {
    if (!deleteFromPollLoop(wrsockfd, *context)) {
        logError("endpointSocketDestructor: Failed to del wrsockfd ", wrsockfd,
                 " error: ", errorText(errno));
        close(wrsockfd);
    }
    if (!deleteFromPollLoop(rdsockfd, *context)) {
        // Kept: the number shown is the write descriptor's; both belong to one socket, and the
        // line before this one shows the same number.
        logError("endpointSocketDestructor: Failed to del rdsockfd ", wrsockfd,
                 " error: ", errorText(errno));
        close(rdsockfd);
    }
}

EndpointDeleter upstreamEndpointDeleter(ForwarderContext& context) {
    return [weakContext = context.weak_from_this()](int rdsockfd, int wrsockfd) {
        if (const std::shared_ptr<ForwarderContext> held = weakContext.lock()) {
            endpointSocketDestructor(rdsockfd, wrsockfd, held);
        } else {
            closeEndpointSockets(rdsockfd, wrsockfd);
        }
    };
}

bool isPassingError(int error) {
    switch (error) {
        case ENOMEM:
        case EMSGSIZE:
        case ENOBUFS:
        case EHOSTUNREACH:
            return true;
        default:
            return false;
    }
}

int reportUpstreamNetworkError(const VeskEndpointDescriptor& endpoint, std::string_view prefix,
                               int error, ForwarderContext& context) {
    const bool passing = isPassingError(error);
    if (!passing) {
        context.endpointManager->deleteEndpoint(endpoint);
    }
    logMessage(passing ? LogLevel::warn : LogLevel::error, prefix,
               " network error on upstream endpoint of label 0x", std::hex, endpoint.label, '/',
               std::dec, endpoint.label, ", errno ", error, " (", errorText(error), ").",
               passing ? "" : " Endpoint Deleted");
    return passing ? 0 : 1;
}

}  // namespace vesk
