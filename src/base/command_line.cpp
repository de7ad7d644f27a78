#include "base/command_line.h"

#include <algorithm>
#include <array>
#include <utility>

#include "log/log.h"

namespace vesk {

namespace {

constexpr std::string_view separators = " \t\n\r";

/// An address given as two attributes, and the one attribute that replaces them.
struct AddressPair {
    std::string_view addressKey;
    std::string_view portKey;
    std::string_view foldedKey;
    std::string address;
    std::string port;
};

using AddressPairs = std::array<AddressPair, 4>;

AddressPairs emptyAddressPairs() {
    return {{{"down_ip", "down_port", "down_addrinfo", {}, {}},
             {"up_ip", "up_port", "up_addrinfo", {}, {}},
             {"up_src_ip", "up_src_port", "up_src_addrinfo", {}, {}},
             {"up_aux_flow_ip", "up_aux_flow_port", "up_aux_flow_addrinfo", {}, {}}}};
}

std::string* findHalf(AddressPairs& pairs, std::string_view key) {
    for (AddressPair& pair : pairs) {
        if (key == pair.addressKey) {
            return &pair.address;
        }
        if (key == pair.portKey) {
            return &pair.port;
        }
    }
    return nullptr;
}

std::string takeFront(TokenQueue& tokens) {
    std::string token = std::move(tokens.front());
    tokens.pop_front();
    return token;
}

}  // namespace

TokenQueue splitCommandLine(std::string_view line) {
    TokenQueue tokens;
    std::size_t begin = line.find_first_not_of(separators);
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.find_first_of(separators, begin), line.size());
        tokens.emplace_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(separators, end);
    }
    return tokens;
}

AttributeMap parseCommandAttrs(TokenQueue& tokens) {
    AttributeMap attributes;
    AddressPairs pairs = emptyAddressPairs();
    while (!tokens.empty()) {
        std::string key = takeFront(tokens);
        if (tokens.empty()) {
            break;
        }
        std::string value = takeFront(tokens);
        if (std::string* const half = findHalf(pairs, key)) {
            *half = std::move(value);
        } else {
            attributes.emplace(std::move(key), std::move(value));
        }
    }
    for (const AddressPair& pair : pairs) {
        if (!pair.address.empty() || !pair.port.empty()) {
            attributes.emplace(pair.foldedKey, pair.address + "|" + pair.port);
        }
    }
    return attributes;
}

const std::string* findNonEmpty(const AttributeMap& attributes, std::string_view name) {
    const auto found = attributes.find(name);
    return found == attributes.end() || found->second.empty() ? nullptr : &found->second;
}

bool consumedWhole(const TokenQueue& tokens, std::string_view routine) {
    if (!tokens.empty()) {
        logError(routine, ": bad command, missing value after ", tokens.front());
    }
    return tokens.empty();
}

}  // namespace vesk
