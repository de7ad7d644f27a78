#include "steering/steering_map.h"

#include <algorithm>
#include <charconv>

namespace vesk::controller {

namespace {

constexpr std::string_view digits = "0123456789";

/// The next number in the text, and 0 after the last one. What precedes its end is removed. The
/// packet filter lists instances in hex and ports in decimal.
std::size_t takeNumber(std::string_view& text) {
    constexpr std::string_view hex = "0x";
    constexpr int hexBase = 16;
    constexpr int decimalBase = 10;
    std::size_t number = 0;
    text.remove_prefix(std::min(text.find_first_of(digits), text.size()));
    const bool isHex = text.starts_with(hex);
    text.remove_prefix(isHex ? hex.size() : 0);
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number,
                                     isHex ? hexBase : decimalBase)
                         .ptr;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

}  // namespace

SteeringMap parseSteeringMap(std::string_view listing, const std::string& mark) {
    constexpr std::string_view beginning = "elements = {";
    SteeringMap ports;
    const std::size_t elements = listing.find(beginning);
    if (elements == std::string_view::npos ||
        listing.find("comment \"" + mark + "\"") == std::string_view::npos) {
        return ports;
    }
    std::string_view rest = listing.substr(elements + beginning.size());
    rest = rest.substr(0, rest.find('}'));
    while (rest.find_first_of(digits) != std::string_view::npos) {
        const std::size_t instance = takeNumber(rest);
        ports[instance] = static_cast<std::uint16_t>(takeNumber(rest));
    }
    return ports;
}

}  // namespace vesk::controller
