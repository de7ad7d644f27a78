// The upstream sockets that one receive worker has drained and that the poll loop has to watch
// again. Used only by that worker.
//
// The request to the poll thread is the most expensive step of a reply. Sockets are therefore
// collected and requested together: at the end of a pass, or earlier if they fill a row of the
// message channel. Their endpoints are held meanwhile, so that no socket is closed and no number
// reused before the poll thread is asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "net/endpoint.h"
#include "poll/poll_channel.h"

namespace vesk {

struct ForwarderContext;

class ArmingQueue {
 public:
    explicit ArmingQueue(ForwarderContext& context);

    /// Adds an endpoint whose socket this worker has claimed and drained. `armings` is the
    /// endpoint's count before the receive call: a socket that was drained twice is armed once. The
    /// queue must not be full.
    void add(const EndpointPtr& endpoint, std::uint32_t armings);

    /// Whether the endpoints fill a row of the message channel, so that `arm` has to be called.
    bool full() const { return drained_.size() == maxPollRecords; }

    /// Asks the poll loop to arm all sockets collected, and those refused before whose next attempt
    /// is due. A refusal is logged once, when it begins. After an error that is not temporary the
    /// endpoint is deleted.
    void arm();

    /// Releases refused endpoints that have left the tables.
    void forgetRemoved();

    /// The time until `arm` has to be called even if nothing is added; none if no socket is
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
    /// One row at most.
    std::vector<Drained> drained_;
    /// Those of a row that this worker has to arm. A member so that its memory is reused.
    std::vector<EndpointPtr> ours_;
    /// Refused by the channel; to be tried again.
    std::vector<EndpointPtr> refused_;
    std::chrono::milliseconds pause_ = shortestPause;
    std::chrono::steady_clock::time_point nextTry_;
};

}  // namespace vesk
