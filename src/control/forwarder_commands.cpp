#include "control/forwarder_commands.h"

#include <algorithm>
#include <ios>
#include <optional>
#include <stdexcept>
#include <utility>

#include "app/forwarder_context.h"
#include "base/parse_number.h"
#include "control/listening_endpoint.h"
#include "datapath/downstream.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

struct ListenAddress {
    std::string address;
    std::uint64_t port;
};

/// What "start" asks for, or nothing, after logging, where it makes no sense.
std::optional<ListenAddress> parseStart(TokenQueue& tokens) {
    const AttributeMap attributes = parseCommandAttrs(tokens);
    if (const std::string leftover = describeLeftover(tokens); !leftover.empty()) {
        logError("startForwarder: bad command, ", leftover);
        return std::nullopt;
    }
    const std::string* const address = requireNonEmpty(
        attributes, "addr", "startForwarder: bad command, missing or empty 'addr' attr");
    if (address == nullptr) {
        return std::nullopt;
    }
    const std::string* const portText = requireNonEmpty(
        attributes, "port", "startForwarder: bad command, missing or empty 'port' attr");
    if (portText == nullptr) {
        return std::nullopt;
    }
    const std::optional<std::uint64_t> port = parseUnsigned(*portText);
    if (!port) {
        // Kept: two blanks before "Bad", none before the text refused.
        logError("startForwarder: bad command,  Bad port value", *portText);
        return std::nullopt;
    }
    try {
        const IPAddrInfo resolved(*address, static_cast<std::uint32_t>(*port));
    } catch (const std::invalid_argument&) {
        logError("startForwarder: bad command,  Invalid address and/or port ");
        return std::nullopt;
    }
    return ListenAddress{*address, *port};
}

/// Releases the context's endpoint; one that a receive thread serves lives on with that thread.
void releaseDownstreamEndpoint(ForwarderContext& context) {
    EndpointPtr endpoint = context.downstreamEndpoint.exchange(nullptr);
    const bool served = std::ranges::any_of(context.downstreamListeners, [&](const auto& listener) {
        return listener.endpoint == endpoint;
    });
    if (!served) {
        closeListeningEndpoint(std::move(endpoint), context);
    }
}

/// 0, or the negative error code of the thread's creation.
int startDownstreamThread(const EndpointPtr& endpoint,
                          const std::shared_ptr<ForwarderContext>& context) {
    DownstreamListener& listener = context->downstreamListeners.emplace_back();
    listener.endpoint = endpoint;
    const int error =
        listener.thread.start([context, endpoint] { downstreamEptRecv(context, endpoint); });
    if (error != 0) {
        logError("Failed to create downstream receive thread: ", errorText(error));
        context->downstreamListeners.pop_back();
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
    // First, since one that an earlier attempt left without a thread may hold the same port.
    releaseDownstreamEndpoint(*context);
    const EndpointPtr endpoint =
        makeDownstreamEndpoint(listen->address, static_cast<int>(listen->port));
    context->downstreamEndpoint.exchange(endpoint);
    const int result = endpoint ? startDownstreamThread(endpoint, context) : -1;
    // Kept: said whether or not it started; what failed was said before.
    logInfo("Vesk started on port ", listen->port, " address ", listen->address);
    return result == 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the shape of every handler.
bool stopForwarder(TokenQueue /*tokens*/, const std::shared_ptr<ForwarderContext>& context) {
    return stopForwarder(*context);
}

bool stopForwarder(ForwarderContext& context) {
    const bool listening = !context.downstreamListeners.empty();
    for (DownstreamListener& listener : context.downstreamListeners) {
        listener.thread.stop();
    }
    if (listening) {
        logInfo("Forwarder listener stopped");
    }
    releaseDownstreamEndpoint(context);
    for (DownstreamListener& listener : context.downstreamListeners) {
        closeListeningEndpoint(std::move(listener.endpoint), context);
    }
    context.downstreamListeners.clear();
    return true;
}

bool setLogParams(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& /*context*/) {
    const AttributeMap attributes = parseCommandAttrs(tokens);
    if (const std::string leftover = describeLeftover(tokens); !leftover.empty()) {
        logError("setLogParams: bad command, ", leftover);
        return false;
    }
    const std::string* const priority = requireNonEmpty(
        attributes, "priority", "setLogParams: bad command, missing or empty 'priority' attr");
    return priority != nullptr && setLogLevelByName(*priority);
}

}  // namespace vesk
