// Questions to the name servers of the host, of which none waits: the descriptors and the deadline
// are for the caller's poll(2). Owned by names/peer_lookup; one thread, the controller's main
// thread.
#pragma once

#include <poll.h>

#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "names/peer_addresses.h"

struct ares_channeldata;

namespace vesk::controller {

class NameQuestions {
 public:
    using Clock = std::chrono::steady_clock;

    NameQuestions();
    ~NameQuestions();

    NameQuestions(const NameQuestions&) = delete;
    NameQuestions& operator=(const NameQuestions&) = delete;

    /// Drops the questions that have no answer yet, and asks these. Each is answered, if only that
    /// no server has answered in time. Reads /etc/resolv.conf again.
    void ask(const std::vector<NameQuestion>& questions);

    /// Drops the questions that have no answer yet.
    void drop();

    std::vector<pollfd> watched() const;
    std::optional<Clock::time_point> dueAt() const;

    /// Handles what poll(2) found on the descriptors of watched(), and the deadline.
    void handle(std::span<const pollfd> watched);

    /// The answers since the last call.
    std::vector<NameAnswer> take();

 private:
    struct CloseChannel {
        void operator()(ares_channeldata* channel) const;
    };

    bool open();

    std::vector<NameAnswer> answers_;
    std::unique_ptr<ares_channeldata, CloseChannel> channel_;
};

}  // namespace vesk::controller
