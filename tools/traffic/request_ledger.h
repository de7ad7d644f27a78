// Tracks every request until it is answered or lost. The numbers of the pool are used in order,
// again and again, so the open requests are between the oldest and the next number. After moveOn()
// those of the second generation are used, which continue where the first one stopped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "lib/latency_histogram.h"

namespace vesk::bench {

struct RequestCounts {
    std::uint64_t sent = 0;
    std::uint64_t answered = 0;
    std::uint64_t lost = 0;
    std::uint64_t late = 0;      // answered after they were counted as lost; still counted as lost
    std::uint64_t mostLost = 0;  // of one flow
    std::uint64_t nextSent = 0;  // of `sent`, those of the second generation
    std::uint64_t nextAnswered = 0;
};

class RequestLedger {
 public:
    using FlowOf = std::function<std::size_t(std::size_t)>;

    /// `flowOf` tells the flow of a number of the pool.
    RequestLedger(std::size_t poolSize, std::int64_t lossTimeout, FlowOf flowOf)
        : requests_(poolSize), lossTimeout_(lossTimeout), flowOf_(std::move(flowOf)) {}

    /// Further requests have numbers of the second generation.
    void moveOn() { generation_ = 1; }

    /// Only requests sent while this is on are counted.
    void measure(bool on) { measuring_ = on; }

    std::size_t nextNumber() const {
        return generation_ * requests_.size() + next_ % requests_.size();
    }
    /// How many requests may be sent before a number would be reused that is still open.
    std::size_t room() const { return requests_.size() - (next_ - oldest_); }
    std::size_t outstanding() const { return outstanding_; }

    void sent(std::size_t count, std::int64_t now);

    /// False for an unexpected answer: a second one to the same request, or one to a request of the
    /// other generation.
    bool answered(std::size_t number, std::int64_t now);

    /// Counts requests as lost that have been open for too long.
    void expire(std::int64_t now);

    const RequestCounts& counts() const { return counts_; }
    const LatencyHistogram& roundTrips() const { return roundTrips_; }

 private:
    enum class State { answered, open, lost };

    struct Request {
        std::int64_t sentAt = 0;
        State state = State::answered;
        bool measured = false;
        std::size_t generation = 0;
    };

    void countLost(std::size_t number);

    std::vector<Request> requests_;
    std::int64_t lossTimeout_;
    FlowOf flowOf_;
    std::map<std::size_t, std::uint64_t> lostOfFlow_;
    std::size_t generation_ = 0;
    bool measuring_ = false;
    std::uint64_t next_ = 0;
    std::uint64_t oldest_ = 0;
    std::size_t outstanding_ = 0;
    RequestCounts counts_;
    LatencyHistogram roundTrips_;
};

}  // namespace vesk::bench
