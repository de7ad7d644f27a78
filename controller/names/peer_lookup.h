// Keeps the addresses of the lateral peers that the file gives by name: asks for them and takes the
// answers. Owned by service/supervisor, whose one thread polls its descriptors.
#pragma once

#include <poll.h>

#include <chrono>
#include <optional>
#include <span>
#include <vector>

#include "config/configuration.h"
#include "names/name_questions.h"
#include "names/peer_addresses.h"

namespace vesk::controller {

class PeerLookup {
 public:
    using Clock = std::chrono::steady_clock;

    /// Takes what the file says, and puts the addresses that are known into it. `running` is what
    /// it said before.
    void take(std::optional<Lateral>& wanted, const std::optional<Lateral>& running);

    /// A peer may have moved.
    void suspect() { addresses_.suspect(Clock::now()); }

    // One turn of the loop.

    std::vector<pollfd> watched() const { return questions_.watched(); }
    std::optional<Clock::time_point> dueAt() const;
    /// Takes answers and asks again when it is time to; `watched` is what poll(2) has found.
    std::vector<PeerNews> handle(std::span<const pollfd> watched);

    const PeerAddresses& addresses() const { return addresses_; }

 private:
    PeerAddresses addresses_;
    NameQuestions questions_;
};

}  // namespace vesk::controller
