#include "child/flow_sockets.h"

#include "kernel/text_words.h"

namespace vesk::controller {

void noteCreatedEndpoint(std::string_view text, FlowDescriptors& flows) {
    constexpr std::string_view name = "endpoint: label 0x";
    const std::size_t place = text.find(name);
    if (place == std::string_view::npos) {
        return;
    }
    text.remove_prefix(place + name.size());
    const std::string_view label = takeWord(text);
    const auto number = parseWord<std::uint32_t>(label.substr(0, label.find('/')), 16);
    const bool named = takeWord(text) == "sockfds";
    const auto reading = parseWord<int>(takeWord(text));
    const auto writing = parseWord<int>(takeWord(text));
    if (named && number && reading && writing) {
        flows[*reading] = *number;
        flows[*writing] = *number;
    }
}

}  // namespace vesk::controller
