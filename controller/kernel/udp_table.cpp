#include "kernel/udp_table.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <optional>

#include "kernel/text_words.h"

namespace vesk::controller {

namespace {

/// Splits "left:right" and reads the right half as a hex number. Leaves the left half in `word`.
template <class Number>
bool takeRightHalf(std::string_view& word, Number& number) {
    const std::size_t colon = word.find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::optional<Number> right = parseWord<Number>(word.substr(colon + 1), 16);
    word = word.substr(0, colon);
    number = right.value_or(0);
    return right.has_value();
}

std::optional<UdpSocket> parseSocket(std::string_view line) {
    std::array<std::string_view, 13> words;
    for (std::string_view& word : words) {
        word = takeWord(line);
    }
    auto& [slot, local, remote, state, queues, timer, retransmits, user, timeout, inode, references,
           pointer, drops] = words;
    UdpSocket socket;
    const bool ended = takeWord(line).empty();
    if (!ended || !slot.ends_with(':') || !takeRightHalf(local, socket.port) ||
        !takeRightHalf(queues, socket.receiveQueue)) {
        return std::nullopt;
    }
    const auto sendQueue = parseWord<std::uint64_t>(queues, 16);
    const auto number = parseWord<std::uint64_t>(inode);
    const auto dropped = parseWord<std::uint64_t>(drops);
    if (!sendQueue || !number || !dropped) {
        return std::nullopt;
    }
    socket.address = local;
    socket.sendQueue = *sendQueue;
    socket.inode = *number;
    socket.drops = *dropped;
    return socket;
}

}  // namespace

std::vector<UdpSocket> parseUdpTable(std::string_view text) {
    std::vector<UdpSocket> sockets;
    while (!text.empty()) {
        if (const std::optional<UdpSocket> socket = parseSocket(takeLine(text))) {
            sockets.push_back(*socket);
        }
    }
    return sockets;
}

std::string tableAddress(const std::string& host) {
    std::array<std::uint32_t, 4> words{};
    std::size_t count = 0;
    if (inet_pton(AF_INET, host.c_str(), words.data()) == 1) {
        count = 1;
    } else if (inet_pton(AF_INET6, host.c_str(), words.data()) == 1) {
        count = 4;
    }
    std::string digits;
    for (std::size_t i = 0; i < count; ++i) {
        std::array<char, sizeof "ffffffff"> word{};
        std::snprintf(word.data(), word.size(), "%08X", words.at(i));
        digits += word.data();
    }
    return digits;
}

}  // namespace vesk::controller
