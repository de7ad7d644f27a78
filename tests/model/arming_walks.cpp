#include "arming_walks.h"

#include <algorithm>
#include <type_traits>
#include <unordered_map>

namespace vesk::model {

namespace {

static_assert(std::has_unique_object_representations_v<Situation>, "situations have no padding");

std::string keyOf(const Situation& situation) {
    return {reinterpret_cast<const char*>(&situation), sizeof(situation)};
}

bool isUntried(const ArmingWalks::Step& step) {
    return !step.walked;
}

}  // namespace

ArmingWalks::ArmingWalks(const Rules& rules, const Bounds& bounds) {
    std::unordered_map<std::string, std::uint32_t> numbers{{keyOf({}), 0}};
    places_.push_back({{}, 0, {}});
    for (std::uint32_t here = 0; here < places_.size(); ++here) {
        for (const Outgoing& next : operationsFrom(places_[here].situation, rules, bounds)) {
            const auto number = static_cast<std::uint32_t>(places_.size());
            const auto [entry, isNew] = numbers.try_emplace(keyOf(next.then), number);
            if (isNew) {
                places_.push_back({next.then, here, {}});
            }
            places_[here].steps.push_back({next.operation, entry->second});
        }
    }
}

std::size_t ArmingWalks::steps() const {
    std::size_t count = 0;
    for (const Place& place : places_) {
        count += place.steps.size();
    }
    return count;
}

std::vector<ArmingWalks::Step> ArmingWalks::next() {
    while (firstOpen_ < places_.size() &&
           std::ranges::none_of(places_[firstOpen_].steps, isUntried)) {
        ++firstOpen_;
    }
    if (firstOpen_ == places_.size()) {
        return {};
    }
    std::vector<Step> walk = shortestTo(firstOpen_);
    std::uint32_t here = firstOpen_;
    for (auto step = std::ranges::find_if(places_[here].steps, isUntried);
         step != places_[here].steps.end();
         step = std::ranges::find_if(places_[here].steps, isUntried)) {
        step->walked = true;
        walk.push_back(*step);
        here = step->to;
    }
    return walk;
}

std::vector<ArmingWalks::Step> ArmingWalks::shortestTo(std::uint32_t place) const {
    std::vector<Step> steps;
    while (place != 0) {
        const Place& before = places_[places_[place].cameFrom];
        steps.push_back(*std::ranges::find(before.steps, place, &Step::to));
        place = places_[place].cameFrom;
    }
    std::ranges::reverse(steps);
    return steps;
}

}  // namespace vesk::model
