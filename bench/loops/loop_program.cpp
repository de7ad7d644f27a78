#include "loops/loop_program.h"

#include <iostream>
#include <string>
#include <thread>

namespace vesk::bench {

void PeerAddress::store(const sockaddr_in& address) {
    const std::uint64_t packed =
        std::uint64_t{address.sin_addr.s_addr} << 16 | std::uint64_t{address.sin_port};
    // A write would invalidate the cache line of the other thread, and a peer's address rarely
    // changes.
    if (packed_.load(std::memory_order_relaxed) != packed) {
        packed_.store(packed, std::memory_order_relaxed);
    }
}

sockaddr_in PeerAddress::load() const {
    const std::uint64_t packed = packed_.load(std::memory_order_relaxed);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = static_cast<in_port_t>(packed & 0xffff);
    address.sin_addr.s_addr = static_cast<in_addr_t>(packed >> 16);
    return address;
}

std::optional<LoopCommands> readCommands() {
    LoopCommands commands;
    for (std::string line; std::getline(std::cin, line);) {
        if (auto plan = parseSetCommand(line)) {
            commands.plans.push_back(std::move(*plan));
        } else if (const auto port = parseStartCommand(line)) {
            commands.port = *port;
            return commands;
        }
    }
    return std::nullopt;
}

void runUntilInputEnds(std::uint16_t port, const std::function<void()>& upward,
                       const std::function<void()>& downward, const std::function<void()>& stop) {
    std::thread upwardThread(upward);
    std::thread downwardThread(downward);
    std::cout << "info loop started on port " << port << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
    }
    stop();
    upwardThread.join();
    downwardThread.join();
}

}  // namespace vesk::bench
