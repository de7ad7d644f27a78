#include "control/lateral_commands.h"

#include <openssl/rand.h>

#include <ios>
#include <memory>
#include <optional>
#include <stdexcept>

#include "base/sync.h"
#include "base/thread_control.h"
#include "context/forwarder_context.h"
#include "control/command_attributes.h"
#include "control/listening_endpoint.h"
#include "datapath/lateral.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

/// A peer's address cannot be resolved without a port. Datagrams are sent to the stream's port
/// instead.
constexpr std::uint32_t placeholderPort = 8445;

constexpr std::size_t lateralKeyLength = 16;

struct LateralSettings {
    ListenAddress listen;
    std::uint32_t index;
    std::uint32_t maxQels;
};

void reportUnusableLateralAddress() {
    logError("startLateralStream: bad command, Invalid lateral address and/or port ");
}

/// Whether the address can be resolved; logs if not. Unlike in other commands, a failure of the
/// resolver counts as a bad address: the process must not end because the stream cannot start.
bool isUsableLateralAddress(const ListenAddress& listen) {
    try {
        // Looked up here to check the command, and again for the socket.
        const IPAddrInfo resolved(listen.address, static_cast<std::uint32_t>(listen.port));
        return true;
    } catch (const std::invalid_argument&) {
    } catch (const std::runtime_error&) {
    }
    reportUnusableLateralAddress();
    return false;
}

/// The settings that "start_lateral" names. None, after logging the first error.
std::optional<LateralSettings> parseStartLateral(TokenQueue& tokens) {
    const auto attributes = CommandAttributes::parse("startLateralStream", tokens);
    // Kept: two blanks before "Bad", none before the text refused.
    auto listen = attributes ? attributes->listenAddress(" Bad lateral port value") : std::nullopt;
    if (!listen || !isUsableLateralAddress(*listen)) {
        return std::nullopt;
    }
    const auto index = attributes->number32("idx", "Bad lateral index value");
    if (!index) {
        return std::nullopt;
    }
    const auto maxQels = attributes->number32("max_qels", "Bad lateral Max Qels value");
    if (!maxQels) {
        return std::nullopt;
    }
    return LateralSettings{*std::move(listen), *index, *maxQels};
}

/// Stores a new random key for signing and for checking. False, after logging and with nothing
/// changed, if libcrypto has no random bytes.
bool drawLateralKey(LateralStream& lateral) {
    SecretBytes<lateralKeyLength> key{};
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) {
        logError("Failed to generate lateral stream HMAC key");
        return false;
    }
    const MutexLock lock(lateral.signingLock);
    for (HmacInfo* const slot : {&lateral.signingKey, &lateral.checkingKey}) {
        slot->setKey(key);
        slot->setAlgorithm(hmacSha256);
    }
    return true;
}

void storeSettings(const LateralSettings& settings, LateralStream& lateral) {
    lateral.port = settings.listen.port;
    lateral.index = settings.index;
    lateral.maxQels = settings.maxQels;
}

/// First closes an endpoint that an earlier attempt left without a thread, since it may have the
/// same port. None, after logging, if the address can no longer be resolved.
std::optional<EndpointPtr> openLateralEndpoint(const LateralSettings& settings,
                                               ForwarderContext& context) {
    context.lateralEndpoint.withdraw();
    closeListeningEndpoint(std::move(context.lateral.endpoint), context);
    try {
        return makeLateralStreamEndpoint(settings.listen.address,
                                         static_cast<int>(settings.listen.port));
    } catch (const std::invalid_argument&) {
    } catch (const std::runtime_error&) {
    }
    reportUnusableLateralAddress();
    return std::nullopt;
}

/// The body of the lateral thread. It handles no datagram before the settings are published.
void receiveOnceStarted(WakeUp& started, const std::shared_ptr<ForwarderContext>& context,
                        const EndpointPtr& endpoint) {
    {
        const CancellationScope cancellable;
        started.wait();
    }
    lateralStreamRecv(context, endpoint);
}

/// Creates the thread, then publishes the settings. 0, or the negative error code of the thread's
/// creation; the endpoint is kept in both cases.
int startLateralThread(EndpointPtr endpoint, const std::shared_ptr<ForwarderContext>& context) {
    LateralStream& lateral = context->lateral;
    lateral.endpoint = LentEndpoint(std::move(endpoint));
    context->lateralEndpoint.publish(lateral.endpoint);
    const auto started = std::make_shared<WakeUp>();
    const int error = lateral.thread.start([context, started, lease = lateral.endpoint.lease()] {
        receiveOnceStarted(*started, context, lease);
    });
    if (error != 0) {
        logError("Failed to create lateral stream receive thread: ", errorText(error));
        return -error;
    }
    lateral.running.store(true, std::memory_order_release);
    started->post();
    logInfo("Created lateral stream receive thread: ", std::hex, lateral.thread.id());
    return 0;
}

}  // namespace

bool addLateralPeer(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const auto attributes = CommandAttributes::parse("addLateralPeer", tokens);
    if (!attributes) {
        return false;
    }
    const auto index = attributes->number32("idx", "Bad lateral index value");
    const std::string* const address = index ? attributes->text("addr") : nullptr;
    if (address == nullptr) {
        return false;
    }
    try {
        context->lateral.peers.set(*index, IPAddrInfo(*address, placeholderPort));
    } catch (const std::invalid_argument&) {
        attributes->refuse("Invalid address");
        return false;
    }
    logInfo("Added lateral stream peer: idx ", *index, " addr ", *address);
    return true;
}

bool startLateralStream(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    if (context->lateral.running.load(std::memory_order_acquire)) {
        logError("startLateralStream: bad command, already started");
        return false;
    }
    if (context->lateral.peers.empty()) {
        logError("startLateralStream: bad command, no peers configured");
        return false;
    }
    const std::optional<LateralSettings> settings = parseStartLateral(tokens);
    if (!settings || !drawLateralKey(context->lateral)) {
        return false;
    }
    std::optional<EndpointPtr> endpoint = openLateralEndpoint(*settings, *context);
    if (!endpoint) {
        return false;
    }
    storeSettings(*settings, context->lateral);
    const int result = *endpoint ? startLateralThread(*std::move(endpoint), context) : -1;
    if (result != 0) {
        logError("Vesk Lateral listener failed to start, err: ", result);
        return false;
    }
    logInfo("Vesk Lateral listener started on port ", settings->listen.port, " address ",
            settings->listen.address, " index ", settings->index, " maxQels ", settings->maxQels);
    return true;
}

}  // namespace vesk
