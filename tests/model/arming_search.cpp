#include "arming_search.h"

#include <algorithm>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace vesk::model {

namespace {

static_assert(std::has_unique_object_representations_v<Fifo<std::uint8_t, listLength>>);
static_assert(std::is_trivially_copyable_v<State> && alignof(State) == 1, "states have no padding");

std::string_view bytesOf(const State& state) {
    return {reinterpret_cast<const char*>(&state), sizeof(state)};
}

struct HashBytes {
    std::size_t operator()(const State& state) const {
        return std::hash<std::string_view>()(bytesOf(state));
    }
};
struct EqualBytes {
    bool operator()(const State& left, const State& right) const {
        return bytesOf(left) == bytesOf(right);
    }
};

std::string_view nameOf(Fault fault) {
    switch (fault) {
        case Fault::overtaken:
            return "a worker receives from a socket while another holds unsent replies of it";
        case Fault::usedAfterRelease:
            return "an endpoint used after it was released";
        case Fault::closedWhileWatched:
            return "a descriptor closed while in the epoll set";
        case Fault::usedAfterClose:
            return "a descriptor used after it was closed";
        case Fault::armedTwice:
            return "a socket armed twice";
        case Fault::refusedByEpoll:
            return "a record that the epoll set refuses";
        case Fault::none:
            break;
    }
    return {};
}

std::string_view complaintAbout(const State& state, bool mayGoOn) {
    if (state.fault != Fault::none) {
        return nameOf(state.fault);
    }
    for (std::uint8_t i = 0; i < state.endpointsMade; ++i) {
        const Endpoint& endpoint = state.endpoints.at(i);
        if (endpoint.filed && endpoint.prepared && !isCovered(state, i)) {
            return "a live flow that no thread will read again";
        }
    }
    return mayGoOn || isAtRest(state) ? std::string_view()
                                      : "no thread has a step left, but work is left";
}

class Search {
 public:
    Search(const Rules& rules, const Bounds& bounds) : rules_(rules), bounds_(bounds) {}

    Verdict run() {
        Verdict verdict;
        visit(firstState(bounds_), 0, "start");
        for (std::uint32_t index = 0; index < visits_.size(); ++index) {
            const std::string_view complaint = expand(index);
            if (!complaint.empty()) {
                verdict.complaint = complaint;
                verdict.trace = traceTo(index);
                break;
            }
        }
        if (verdict.complaint.empty()) {
            findStateWithoutRest(verdict);
        }
        verdict.states = visits_.size();
        return verdict;
    }

 private:
    struct Visit {
        const State* state;
        std::uint32_t cameFrom;
        std::string_view step;
    };
    struct Edge {
        std::uint32_t to;
        std::uint32_t from;
    };

    std::uint32_t visit(const State& state, std::uint32_t cameFrom, std::string_view step) {
        const auto number = static_cast<std::uint32_t>(visits_.size());
        const auto [entry, isNew] = numbers_.try_emplace(state, number);
        if (isNew) {
            visits_.push_back({&entry->first, cameFrom, step});
        }
        return entry->second;
    }

    std::string_view expand(std::uint32_t index) {
        const State& state = *visits_[index].state;
        bool mayGoOn = false;
        for (const Transition& transition : stepsFrom(state, rules_, bounds_)) {
            const std::uint32_t to = visit(transition.next, index, transition.name);
            if (!transition.fromOutside) {
                mayGoOn = true;
                edges_.push_back({to, index});
            }
        }
        if (!mayGoOn) {
            atRest_.push_back(index);
        }
        return complaintAbout(state, mayGoOn);
    }

    /// Follows the steps backwards from the states of rest. A state that is not reached has no way
    /// to rest.
    void findStateWithoutRest(Verdict& verdict) {
        std::ranges::sort(edges_, {}, &Edge::to);
        std::vector<bool> reached(visits_.size(), false);
        std::vector<std::uint32_t> open = atRest_;
        while (!open.empty()) {
            const std::uint32_t index = open.back();
            open.pop_back();
            if (reached[index]) {
                continue;
            }
            reached[index] = true;
            auto edge = std::ranges::lower_bound(edges_, index, {}, &Edge::to);
            for (; edge != edges_.end() && edge->to == index; ++edge) {
                open.push_back(edge->from);
            }
        }
        const auto lost = std::ranges::find(reached, false);
        if (lost != reached.end()) {
            verdict.complaint = "a state from which the threads cannot reach rest";
            verdict.trace = traceTo(static_cast<std::uint32_t>(lost - reached.begin()));
        }
    }

    std::string traceTo(std::uint32_t index) const {
        std::string trace;
        for (; index != 0; index = visits_[index].cameFrom) {
            trace.insert(0, std::string(visits_[index].step) + "\n");
        }
        return trace;
    }

    const Rules& rules_;
    const Bounds& bounds_;
    // Nodes keep their addresses, so that the visits can point to them.
    std::unordered_map<State, std::uint32_t, HashBytes, EqualBytes> numbers_;
    std::vector<Visit> visits_;
    std::vector<Edge> edges_;
    std::vector<std::uint32_t> atRest_;
};

}  // namespace

Verdict search(const Rules& rules, const Bounds& bounds) {
    return Search(rules, bounds).run();
}

}  // namespace vesk::model
