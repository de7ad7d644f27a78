#include "control/forwarder_commands.h"

#include <ios>
#include <optional>
#include <stdexcept>
#include <utility>

#include "context/forwarder_context.h"
#include "control/command_attributes.h"
#include "control/listening_endpoint.h"
#include "datapath/downstream.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

void reportUnusableAddress() {
    // Kept: two blanks after the comma and one at the end.
    logError("startForwarder: bad command,  Invalid address and/or port ");
}

/// The address that "start" names. None, after logging, if the command is invalid.
std::optional<ListenAddress> parseStart(TokenQueue& tokens) {
    const auto attributes = CommandAttributes::parse("startForwarder", tokens);
    // Kept: two blanks before "Bad", and none before the text refused.
    auto listen = attributes ? attributes->listenAddress(" Bad port value") : std::nullopt;
    if (!listen) {
        return std::nullopt;
    }
    try {
        // Looked up here to check the command, and again for the socket.
        const IPAddrInfo resolved(listen->address, static_cast<std::uint32_t>(listen->port));
    } catch (const std::invalid_argument&) {
        reportUnusableAddress();
        return std::nullopt;
    }
    return listen;
}

/// Withdraws and closes each endpoint that no thread serves. The endpoint of a thread that could
/// not be stopped stays open until the process ends.
void closeUnservedEndpoints(ForwarderContext& context) {
    auto& listeners = context.downstreamListeners;
    for (auto listener = listeners.begin(); listener != listeners.end();) {
        if (listener->thread.started() || listener->thread.leftRunning()) {
            ++listener;
            continue;
        }
        if (context.downstreamEndpoint.load() == listener->endpoint.lease()) {
            context.downstreamEndpoint.withdraw();
        }
        closeListeningEndpoint(std::move(listener->endpoint), context);
        listener = listeners.erase(listener);
    }
}

/// First closes an endpoint that an earlier attempt left without a thread, since it may have the
/// same port. None, after logging and with the slot unchanged, if the second look-up has no usable
/// address.
std::optional<EndpointPtr> openDownstreamEndpoint(const ListenAddress& listen,
                                                  ForwarderContext& context) {
    closeUnservedEndpoints(context);
    try {
        return makeDownstreamEndpoint(listen.address, static_cast<int>(listen.port));
    } catch (const std::invalid_argument&) {
        reportUnusableAddress();
        return std::nullopt;
    }
}

/// 0, or the negative error code of the thread's creation; the endpoint is kept in both cases.
int startDownstreamThread(EndpointPtr endpoint, const std::shared_ptr<ForwarderContext>& context) {
    DownstreamListener& listener = context->downstreamListeners.emplace_back();
    listener.endpoint = LentEndpoint(std::move(endpoint));
    context->downstreamEndpoint.publish(listener.endpoint);
    const int error = listener.thread.start(
        [context, lease = listener.endpoint.lease()] { downstreamEptRecv(context, lease); });
    if (error != 0) {
        logError("Failed to create downstream receive thread: ", errorText(error));
        return -error;
    }
    logInfo("Created downstream receive thread: ", std::hex, listener.thread.id());
    return 0;
}

}  // namespace

bool startForwarder(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const std::optional<ListenAddress> listen = parseStart(tokens);
    if (!listen) {
        return false;
    }
    std::optional<EndpointPtr> endpoint = openDownstreamEndpoint(*listen, *context);
    if (!endpoint) {
        return false;
    }
    if (!*endpoint) {
        context->downstreamEndpoint.withdraw();
    }
    const int result = *endpoint ? startDownstreamThread(std::move(*endpoint), context) : -1;
    // Kept: logged whether or not it started; the failure was logged before.
    logInfo("Vesk started on port ", listen->port, " address ", listen->address);
    return result == 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): all handlers have this signature.
bool stopForwarder(TokenQueue /*tokens*/, const std::shared_ptr<ForwarderContext>& context) {
    return stopForwarder(*context);
}

bool stopForwarder(ForwarderContext& context) {
    bool listening = false;
    for (DownstreamListener& listener : context.downstreamListeners) {
        listening = listening || listener.thread.started();
        listener.thread.stop();
    }
    if (listening) {
        logInfo("Forwarder listener stopped");
    }
    context.downstreamEndpoint.withdraw();
    closeUnservedEndpoints(context);
    return true;
}

bool setLogParams(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& /*context*/) {
    const auto attributes = CommandAttributes::parse("setLogParams", tokens);
    const std::string* const priority = attributes ? attributes->text("priority") : nullptr;
    return priority != nullptr && setLogLevelByName(*priority);
}

}  // namespace vesk
