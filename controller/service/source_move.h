// Moves the flows that send from an address of their own to the forwarder that replaces theirs, one
// after the other: two sockets cannot have the address, so the old forwarder has to delete a flow
// before the new one can use it. Decides what to do and when; service/supervisor, which calls it in
// each turn of its loop, does it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "config/configuration.h"
#include "service/deadline.h"

namespace vesk::controller {

/// A flow with a source that it does not share.
struct SourceFlow {
    std::string name;
    std::uint32_t label = 0;
    HostPort source;
};

/// The flow's own source, if it has one. A shared one needs no move: both forwarders can bind it.
std::optional<HostPort> ownSource(const Flow& flow);

struct SourceMoveActions {
    /// Tells the old forwarder to delete the flow with this label.
    std::function<void(std::uint32_t)> release;
    /// Whether the old forwarder has carried out all commands.
    std::function<bool()> released;
    /// Whether a socket can have the address: 0, or a negative error number.
    std::function<int(const HostPort&)> tryToBind;
    /// Sends the datagrams of the label to the new forwarder. Empty, or why that failed.
    std::function<std::string(std::uint32_t)> steer;
    /// Logs an error.
    std::function<void(const std::string&)> report;
};

class SourceMove {
 public:
    using Clock = std::chrono::steady_clock;

    SourceMove(std::deque<SourceFlow> flows, SourceMoveActions actions);

    /// Takes all steps that are possible now.
    void goOn(Clock::time_point now);

    std::size_t flows() const { return all_; }
    std::size_t left() const { return flows_.size(); }
    bool done() const { return flows_.empty(); }
    /// When goOn() must be called; none while an answer of the old forwarder is awaited.
    Deadline dueAt() const { return tryAgainAt_; }

 private:
    bool isFree(const SourceFlow& flow, Clock::time_point now);
    void report(const SourceFlow& flow, const std::string& text) const;

    SourceMoveActions actions_;
    std::size_t all_;
    std::deque<SourceFlow> flows_;  // the first one is being moved
    bool releasing_ = false;        // the old forwarder has been told to delete the first one
    Deadline giveUpAt_;
    Deadline tryAgainAt_;
};

}  // namespace vesk::controller
