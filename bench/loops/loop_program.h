// Shared by the bare and the batched loop. Like the forwarder, both read "set" and "start" lines
// from standard input and run until it ends. Both run one thread for each direction. They have no
// tables: labels are consecutive, so a label is an index.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "lib/authentication.h"
#include "lib/flow_plan.h"
#include "lib/udp_socket.h"

namespace vesk::bench {

/// The address for replies of a flow: one thread writes it and the other reads it, atomically.
class PeerAddress {
 public:
    void store(const sockaddr_in& address);
    sockaddr_in load() const;

 private:
    std::atomic<std::uint64_t> packed_{0};
};

/// One direction of one flow. Only one thread uses it, hence the alignment to a cache line.
template <HmacEngine Engine>
class alignas(64) FlowWay {
 public:
    FlowWay(const HmacKey& inKey, const HmacKey& outKey, std::uint32_t label)
        : check_(inKey), sign_(outKey), label_(label) {}

    /// Checks the datagram and rewrites it to the one to send; returns false if it is to be
    /// dropped.
    bool rewrite(const FramingLayout& layout, std::span<std::byte> datagram,
                 std::size_t payloadOffset) {
        if (!checkDatagram(check_, layout, datagram, payloadOffset)) {
            return false;
        }
        writeLabel(layout, datagram, label_);
        signDatagram(sign_, layout, datagram, payloadOffset);
        return true;
    }

 private:
    Engine check_;
    Engine sign_;
    std::uint32_t label_;
};

template <HmacEngine Engine>
struct LoopFlow {
    explicit LoopFlow(const FlowPlan& plan)
        : up(plan.downIn, plan.upOut, plan.upLabel),
          down(plan.upIn, plan.downOut, plan.downLabel),
          service(loopbackAddress(plan.upPort)) {}

    FlowWay<Engine> up;
    FlowWay<Engine> down;
    sockaddr_in service;
    PeerAddress peer;
};

struct LoopCommands {
    std::vector<FlowPlan> plans;
    std::uint16_t port = 0;
};

template <HmacEngine Engine>
class Loop {
 public:
    Loop(const FramingLayout& layout, const LoopCommands& commands)
        : downstream(commands.port), layout_(layout) {
        for (const FlowPlan& plan : commands.plans) {
            flows_.emplace_back(plan);
        }
        firstLabel_ = commands.plans.empty() ? 0 : commands.plans.front().label;
    }

    /// Rewrites a datagram in the given direction and returns its flow; nullptr if it is to be
    /// dropped.
    LoopFlow<Engine>* pass(FlowWay<Engine> LoopFlow<Engine>::*way, std::span<std::byte> datagram) {
        const auto payloadOffset = findPayload(layout_, datagram);
        if (!payloadOffset) {
            return nullptr;
        }
        const std::uint32_t index = readLabel(layout_, datagram) - firstLabel_;
        if (index >= flows_.size()) {
            return nullptr;
        }
        LoopFlow<Engine>& flow = flows_[index];
        return (flow.*way).rewrite(layout_, datagram, *payloadOffset) ? &flow : nullptr;
    }

    UdpSocket downstream;
    UdpSocket upstream;
    std::atomic<bool> stopping{false};

 private:
    const FramingLayout& layout_;
    std::deque<LoopFlow<Engine>> flows_;
    std::uint32_t firstLabel_ = 0;
};

/// Reads standard input up to and including "start"; empty if it ends before.
std::optional<LoopCommands> readCommands();

/// Runs each direction on its own thread until the end of standard input.
void runUntilInputEnds(std::uint16_t port, const std::function<void()>& upward,
                       const std::function<void()>& downward, const std::function<void()>& stop);

/// The whole program. Its only argument is the framing's name, as the first of the forwarder.
template <HmacEngine Engine>
int loopMain(std::span<char*> arguments, void (*upward)(Loop<Engine>&),
             void (*downward)(Loop<Engine>&)) {
    const FramingLayout& layout = arguments.size() > 1 ? framingByName(arguments[1]) : udpV2;
    const auto commands = readCommands();
    if (!commands) {
        return 0;
    }
    Loop<Engine> loop(layout, *commands);
    runUntilInputEnds(
        commands->port, [&] { upward(loop); }, [&] { downward(loop); },
        [&] {
            loop.stopping = true;
            loop.downstream.wakeReceivers();
            loop.upstream.wakeReceivers();
        });
    return 0;
}

}  // namespace vesk::bench
