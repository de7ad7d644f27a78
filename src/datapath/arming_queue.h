// The upstream sockets that one receive worker found drained and that the poll loop has to watch
// again. Used by that worker alone.
//
// Asking the poll thread is the dearest step of a reply, so sockets are collected and asked for
// together: at the end of a pass, or earlier where their number fills a row of the message channel.
// Meanwhile their endpoints are held, so that no socket is closed, and its number used again,
// before the poll thread was asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

class ArmingQueue {
 public:
    explicit ArmingQueue(ForwarderContext& context);

    /// Takes an endpoint whose socket is drained. `armings` is what the endpoint's count was before
    /// the receive call that found nothing: a socket that another worker has armed since is left
    /// alone.
    void add(const EndpointPtr& endpoint, std::uint32_t armings);

    /// Asks for all sockets collected, and tries again those that were refused, where their time
    /// has come. What cannot be armed is logged once, when it is refused first; a lasting failure
    /// costs the flow its endpoint.
    void arm();

    /// Lets go of refused endpoints that have left the tables.
    void forgetRemoved();

    /// How long until `arm` has to be called though nothing was added; none where nothing was
    /// refused.
    std::optional<std::chrono::milliseconds> untilRetry() const;

    static constexpr std::chrono::milliseconds shortestPause{1};
    static constexpr std::chrono::milliseconds longestPause{100};

 private:
    struct Drained {
        EndpointPtr endpoint;
        std::uint32_t armings;
    };

    void armDrained();
    void armOne(const EndpointPtr& endpoint);
    void reportRefused(const EndpointPtr& endpoint, int error);
    void retryRefused();
    int request(std::span<const EndpointPtr> endpoints) const;

    ForwarderContext& context_;
    /// Never more than one row.
    std::vector<Drained> drained_;
    /// Those of a row that are still to be armed; kept for its room.
    std::vector<EndpointPtr> ours_;
    /// Refused by the channel for the time being.
    std::vector<EndpointPtr> refused_;
    std::chrono::milliseconds pause_ = shortestPause;
    std::chrono::steady_clock::time_point nextTry_;
};

}  // namespace vesk
