#include "kernel/port_range.h"

#include "kernel/text_words.h"

namespace vesk::controller {

namespace {

bool addPorts(std::string_view first, std::string_view last, PortSet& ports) {
    const auto low = parseWord<std::uint16_t>(first);
    const auto high = parseWord<std::uint16_t>(last);
    if (!low || !high || *low > *high) {
        return false;
    }
    for (std::size_t port = *low; port <= *high; ++port) {
        ports.set(port);
    }
    return true;
}

}  // namespace

std::optional<PortSet> parsePortRange(std::string_view text) {
    const std::string_view first = takeWord(text);
    const std::string_view last = takeWord(text);
    PortSet ports;
    if (!takeWord(text).empty() || !addPorts(first, last, ports)) {
        return std::nullopt;
    }
    return ports;
}

std::optional<PortSet> parseReservedPorts(std::string_view text) {
    std::string_view list = takeWord(text);
    PortSet ports;
    while (!list.empty()) {
        const std::string_view part = list.substr(0, list.find(','));
        list.remove_prefix(part.size() == list.size() ? part.size() : part.size() + 1);
        const std::size_t dash = part.find('-');
        const std::string_view last = dash == std::string_view::npos ? part : part.substr(dash + 1);
        if (!addPorts(part.substr(0, dash), last, ports)) {
            return std::nullopt;
        }
    }
    return ports;
}

Room portRoom(const PortSet& range, const PortSet& reserved, const PortSet& taken) {
    const PortSet usable = range & ~reserved;
    const std::size_t used = (usable & taken).count();
    return {used, usable.count() - used};
}

}  // namespace vesk::controller
