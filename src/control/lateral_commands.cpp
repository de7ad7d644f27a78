#include "control/lateral_commands.h"

#include <openssl/rand.h>

#include <ios>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "base/parse_number.h"
#include "base/secret_bytes.h"
#include "base/sync.h"
#include "base/thread_control.h"
#include "context/forwarder_context.h"
#include "control/listening_endpoint.h"
#include "datapath/lateral.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

/// Satisfies the address type when a peer's address is checked; the port used is the stream's.
constexpr std::uint32_t placeholderPort = 8445;

constexpr std::size_t lateralKeyLength = 16;

/// The attribute as a 32-bit number, or nothing after logging what is wrong with it.
std::optional<std::uint32_t> requireNumber(const AttributeMap& attributes, std::string_view name,
                                           std::string_view missing, std::string_view bad) {
    const std::string* const text = requireNonEmpty(attributes, name, missing);
    if (text == nullptr) {
        return std::nullopt;
    }
    const std::optional<std::uint32_t> number = parseUnsigned32(*text);
    if (!number) {
        logError(bad, *text);
    }
    return number;
}

struct LateralSettings {
    std::string address;
    std::uint64_t port;
    std::uint32_t index;
    std::uint32_t maxQels;
};

void reportUnusableAddress() {
    logError("startLateralStream: bad command, Invalid lateral address and/or port ");
}

/// Whether the address can be listened on; logs where it cannot. Unlike the other commands it takes
/// a resolver failure for a bad address: a stream that cannot start is no reason to end what runs.
bool isUsableLateralAddress(const std::string& address, std::uint64_t port) {
    try {
        const IPAddrInfo resolved(address, static_cast<std::uint32_t>(port));
        return true;
    } catch (const std::invalid_argument&) {
    } catch (const std::runtime_error&) {
    }
    reportUnusableAddress();
    return false;
}

/// What "start_lateral" asks for, or nothing, after logging the first thing wrong with it.
std::optional<LateralSettings> parseStartLateral(TokenQueue& tokens) {
    const AttributeMap attributes = parseCommandAttrs(tokens);
    if (const std::string leftover = describeLeftover(tokens); !leftover.empty()) {
        logError("startLateralStream: bad command, ", leftover);
        return std::nullopt;
    }
    const std::string* const address = requireNonEmpty(
        attributes, "addr", "startLateralStream: bad command, missing or empty 'addr' attr");
    if (address == nullptr) {
        return std::nullopt;
    }
    const std::string* const portText = requireNonEmpty(
        attributes, "port", "startLateralStream: bad command, missing or empty 'port' attr");
    if (portText == nullptr) {
        return std::nullopt;
    }
    const std::optional<std::uint64_t> port = parseUnsigned(*portText);
    if (!port) {
        // Kept: two blanks before "Bad", none before the text refused.
        logError("startLateralStream: bad command,  Bad lateral port value", *portText);
        return std::nullopt;
    }
    if (!isUsableLateralAddress(*address, *port)) {
        return std::nullopt;
    }
    const auto index = requireNumber(attributes, "idx",
                                     "startLateralStream: bad command, missing or empty 'idx' attr",
                                     "startLateralStream: bad command, Bad lateral index value");
    if (!index) {
        return std::nullopt;
    }
    const auto maxQels = requireNumber(
        attributes, "max_qels", "startLateralStream: bad command, missing or empty 'max_qels' attr",
        "startLateralStream: bad command, Bad lateral Max Qels value");
    if (!maxQels) {
        return std::nullopt;
    }
    return LateralSettings{*address, *port, *index, *maxQels};
}

/// A new random key in both slots; false, with nothing changed, where there is none to be had.
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
    lateral.port = settings.port;
    lateral.index = settings.index;
    lateral.maxQels = settings.maxQels;
}

/// First closes an endpoint that an earlier attempt left without a thread, since it may hold the
/// same port. None, after logging, if the address can no longer be resolved.
std::optional<EndpointPtr> openLateralEndpoint(const LateralSettings& settings,
                                               ForwarderContext& context) {
    context.lateralEndpoint.withdraw();
    closeListeningEndpoint(std::move(context.lateral.endpoint), context);
    try {
        return makeLateralStreamEndpoint(settings.address, static_cast<int>(settings.port));
    } catch (const std::invalid_argument&) {
    } catch (const std::runtime_error&) {
    }
    reportUnusableAddress();
    return std::nullopt;
}

/// The lateral thread: handles no datagram before the settings are published.
void receiveOnceStarted(WakeUp& started, const std::shared_ptr<ForwarderContext>& context,
                        const EndpointPtr& endpoint) {
    {
        const CancellationScope cancellable;
        started.wait();
    }
    lateralStreamRecv(context, endpoint);
}

/// Publishes the settings after the thread was created. 0, or the negative error code of the
/// thread's creation. The endpoint is kept in either case.
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
    const AttributeMap attributes = parseCommandAttrs(tokens);
    if (const std::string leftover = describeLeftover(tokens); !leftover.empty()) {
        logError("addLateralPeer: bad command, ", leftover);
        return false;
    }
    const auto index =
        requireNumber(attributes, "idx", "addLateralPeer: bad command, missing or empty 'idx' attr",
                      "addLateralPeer: bad command, Bad lateral index value");
    if (!index) {
        return false;
    }
    const std::string* const address = requireNonEmpty(
        attributes, "addr", "addLateralPeer: bad command, missing or empty 'addr' attr");
    if (address == nullptr) {
        return false;
    }
    try {
        context->lateral.peers.set(*index, IPAddrInfo(*address, placeholderPort));
    } catch (const std::invalid_argument&) {
        logError("addLateralPeer: bad command, Invalid address");
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
    logInfo("Vesk Lateral listener started on port ", settings->port, " address ",
            settings->address, " index ", settings->index, " maxQels ", settings->maxQels);
    return true;
}

}  // namespace vesk
