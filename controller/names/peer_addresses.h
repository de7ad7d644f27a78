// The addresses to which the names of the lateral peers are resolved: decides when to ask, and what
// each answer changes. Asks nobody itself. Owned by names/peer_lookup; one thread, the controller's
// main thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// The name of a peer, to be resolved to addresses of one family.
struct NameQuestion {
    std::uint32_t index = 0;  ///< of the peer
    std::string name;
    bool ipv6 = false;
    bool operator==(const NameQuestion&) const = default;
};

struct NameAnswer {
    std::uint32_t index = 0;
    std::vector<std::string> addresses;
    std::string problem;  ///< why there is no address; otherwise empty
};

/// What an answer has changed, for the log.
struct PeerNews {
    bool failed = false;  ///< the name can no longer be resolved
    std::string text;
};

class PeerAddresses {
 public:
    using Clock = std::chrono::steady_clock;

    /// Takes what the file says. Peers of the same index and family keep their address, which may
    /// be one of the previous file. True if other names have to be asked: answers to previous
    /// questions are no longer expected.
    bool take(const std::optional<Lateral>& wanted, const std::optional<Lateral>& running,
              Clock::time_point now);

    /// The addresses by index, as far as they are known; those of the file if it has no names.
    void putInto(std::optional<Lateral>& lateral) const;

    /// When questions() has to be called.
    std::optional<Clock::time_point> dueAt() const;
    /// The questions to be asked now; none while answers are outstanding.
    std::vector<NameQuestion> questions(Clock::time_point now);
    /// Takes an answer. News only if the state of the peer has changed.
    std::optional<PeerNews> note(const NameAnswer& answer, Clock::time_point now);
    /// A peer may have moved: asks at once, or as soon as the outstanding answers have arrived.
    void suspect(Clock::time_point now);

    /// Whether each name was resolved by its last answer; false before the first one.
    std::map<std::uint32_t, bool> resolved() const;

 private:
    struct Peer {
        std::string name;
        std::string address;           // the last one; empty if there is none yet
        std::optional<bool> resolved;  // by the last answer; none before the first one
        bool answered = false;         // in this round
    };

    PeerNews resolve(std::uint32_t index, Peer& peer, std::string address) const;
    PeerNews fail(std::uint32_t index, Peer& peer, const std::string& problem) const;

    std::map<std::uint32_t, Peer> peers_;
    bool ipv6_ = false;
    std::chrono::seconds pause_{0};
    std::size_t outstanding_ = 0;
    bool suspected_ = false;
    std::optional<Clock::time_point> askAt_;
};

}  // namespace vesk::controller
