#include "steering/steering_counters.h"

#include <charconv>
#include <string>

namespace vesk::controller {

namespace {

/// The number after "packets " in the block of the counter.
std::uint64_t packetsOf(std::string_view listing, const std::string& name) {
    constexpr std::string_view word = "packets ";
    std::uint64_t packets = 0;
    const std::size_t block = listing.find("counter " + name + " {");
    const std::size_t number = listing.find(word, block);
    if (block != std::string_view::npos && number != std::string_view::npos) {
        const std::string_view digits = listing.substr(number + word.size());
        std::from_chars(digits.data(), digits.data() + digits.size(), packets);
    }
    return packets;
}

}  // namespace

SteeringCounters parseSteeringCounters(std::string_view listing) {
    return {packetsOf(listing, "too_short"), packetsOf(listing, "fragments"),
            packetsOf(listing, "unmatched"), packetsOf(listing, "direct")};
}

}  // namespace vesk::controller
