#include "config/peer_names_reader.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "config/address_reader.h"
#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::string_view namesKey = "peers_from";
constexpr std::string_view placeholder = "{index}";

/// All names are resolved at the same time.
constexpr std::uint32_t mostNames = 1024;
/// Of a name in the domain name system.
constexpr std::size_t longestName = 253;

bool isNameCharacter(char it) {
    return (it >= 'a' && it <= 'z') || (it >= 'A' && it <= 'Z') || (it >= '0' && it <= '9') ||
           it == '-' || it == '.' || it == '_';
}

bool isName(std::string_view text) {
    return !text.empty() && text.size() <= longestName &&
           std::ranges::all_of(text, isNameCharacter);
}

/// "name:port", or what parseHostPort() accepts.
std::optional<HostPort> parseNamePort(const std::string& text) {
    if (std::optional<HostPort> numeric = parseHostPort(text)) {
        return numeric;
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    HostPort place{text.substr(0, colon), 0};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + colon + 1, last, place.port);
    const bool isPort = error == std::errc() && end == last && place.port != 0;
    return isPort && isName(place.host) ? std::optional(place) : std::nullopt;
}

std::string withIndex(std::string text, std::uint32_t index) {
    const std::string number = std::to_string(index);
    for (std::size_t at = text.find(placeholder); at != std::string::npos;
         at = text.find(placeholder, at + number.size())) {
        text.replace(at, placeholder.size(), number);
    }
    return text;
}

/// The texts by index; empty after a problem was added.
std::vector<std::string> textsOfTemplate(TableReader& table, std::uint32_t instances) {
    const std::string text = table.text(namesKey).value_or("");
    std::vector<std::string> texts;
    if (text.find(placeholder) == std::string::npos) {
        table.complain(namesKey, "must contain {index}, or be an array of names");
    } else if (instances > mostNames) {
        table.complain(namesKey, "names at most " + std::to_string(mostNames) + " instances");
    } else {
        for (std::uint32_t index = 0; index < instances; ++index) {
            texts.push_back(withIndex(text, index));
        }
    }
    return texts;
}

std::vector<std::string> textsOfArray(TableReader& table, std::uint32_t instances) {
    std::vector<std::string> texts;
    for (const toml::node& node : *table.array(namesKey)) {
        texts.push_back(node.value<std::string>().value_or(""));
    }
    if (instances != 0 && texts.size() != instances) {
        table.complain(namesKey, "must contain " + std::to_string(instances) +
                                     " names, one for each of lateral.instances");
        texts.clear();
    }
    return texts;
}

std::vector<std::string> readTexts(TableReader& table, std::uint32_t instances) {
    table.require(namesKey);
    const toml::node& node = *table.raw().get(namesKey);
    if (node.is_string()) {
        return textsOfTemplate(table, instances);
    }
    if (node.is_array()) {
        return textsOfArray(table, instances);
    }
    table.complain(namesKey, "must be a string or an array of strings");
    return {};
}

}  // namespace

void readPeerNames(TableReader& table, Lateral& lateral) {
    std::uint32_t index = 0;
    for (const std::string& text : readTexts(table, lateral.instances)) {
        const std::optional<HostPort> place = parseNamePort(text);
        if (!place) {
            table.complain(namesKey, "must have names and ports like \"vesk-0.example:8445\"");
            return;
        }
        if (lateral.listen.port != 0 && place->port != lateral.listen.port) {
            table.complain(namesKey, "must have the port of lateral.port, " +
                                         std::to_string(lateral.listen.port) +
                                         ", which is the same on all instances");
            return;
        }
        if (!lateral.isHere(index)) {
            lateral.peerNames.emplace(index, place->host);
        }
        ++index;
    }
}

}  // namespace vesk::controller
