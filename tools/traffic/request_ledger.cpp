#include "traffic/request_ledger.h"

#include <algorithm>

namespace vesk::bench {

void RequestLedger::sent(std::size_t count, std::int64_t now) {
    for (std::size_t i = 0; i < count; ++i) {
        requests_[next_ % requests_.size()] = {now, State::open, measuring_, generation_};
        ++next_;
    }
    outstanding_ += count;
    counts_.sent += measuring_ ? count : 0;
    counts_.nextSent += measuring_ ? count * generation_ : 0;
}

bool RequestLedger::answered(std::size_t number, std::int64_t now) {
    Request& request = requests_[number % requests_.size()];
    if (request.generation != number / requests_.size()) {
        return false;
    }
    if (request.state != State::open) {
        const bool late = request.state == State::lost;
        request.state = State::answered;
        counts_.late += late && request.measured ? 1 : 0;
        return late;
    }
    request.state = State::answered;
    --outstanding_;
    if (request.measured) {
        ++counts_.answered;
        counts_.nextAnswered += request.generation;
        roundTrips_.add(now - request.sentAt);
    }
    return true;
}

void RequestLedger::expire(std::int64_t now) {
    while (oldest_ < next_) {
        Request& request = requests_[oldest_ % requests_.size()];
        if (request.state == State::open) {
            if (now - request.sentAt < lossTimeout_) {
                return;
            }
            request.state = State::lost;
            --outstanding_;
            if (request.measured) {
                countLost(oldest_ % requests_.size());
            }
        }
        ++oldest_;
    }
}

void RequestLedger::countLost(std::size_t number) {
    ++counts_.lost;
    counts_.mostLost = std::max(counts_.mostLost, ++lostOfFlow_[flowOf_(number)]);
}

}  // namespace vesk::bench
