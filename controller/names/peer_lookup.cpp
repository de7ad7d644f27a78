#include "names/peer_lookup.h"

#include <algorithm>
#include <utility>

namespace vesk::controller {

void PeerLookup::take(std::optional<Lateral>& wanted, const std::optional<Lateral>& running) {
    if (addresses_.take(wanted, running, Clock::now())) {
        questions_.drop();
    }
    addresses_.putInto(wanted);
}

std::optional<PeerLookup::Clock::time_point> PeerLookup::dueAt() const {
    const auto asked = questions_.dueAt();
    const auto next = addresses_.dueAt();
    return asked && next ? std::min(asked, next) : (asked ? asked : next);
}

std::vector<PeerNews> PeerLookup::handle(std::span<const pollfd> watched) {
    questions_.handle(watched);
    if (const std::vector<NameQuestion> due = addresses_.questions(Clock::now()); !due.empty()) {
        questions_.ask(due);
    }
    std::vector<PeerNews> news;
    for (const NameAnswer& answer : questions_.take()) {
        if (std::optional<PeerNews> it = addresses_.note(answer, Clock::now())) {
            news.push_back(*std::move(it));
        }
    }
    return news;
}

}  // namespace vesk::controller
