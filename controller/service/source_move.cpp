#include "service/source_move.h"

#include <cerrno>
#include <utility>

#include "config/label_text.h"

namespace vesk::controller {

namespace {

/// The old forwarder closes the socket on another thread than the one that answers the command.
constexpr std::chrono::milliseconds bindPause{1};
constexpr std::chrono::seconds bindPatience{1};

}  // namespace

std::optional<HostPort> ownSource(const Flow& flow) {
    return flow.multiplex ? std::nullopt : flow.source;
}

SourceMove::SourceMove(std::deque<SourceFlow> flows, SourceMoveActions actions)
    : actions_(std::move(actions)), all_(flows.size()), flows_(std::move(flows)) {}

void SourceMove::goOn(Clock::time_point now) {
    while (!flows_.empty() && actions_.released()) {
        const SourceFlow& flow = flows_.front();
        if (!std::exchange(releasing_, true)) {
            actions_.release(flow.label);
            continue;
        }
        if (!isFree(flow, now)) {
            return;
        }
        if (const std::string problem = actions_.steer(flow.label); !problem.empty()) {
            report(flow, "its datagrams do not reach the new forwarder: " + problem);
        }
        flows_.pop_front();
        releasing_ = false;
    }
}

/// Whether the wait for the flow's address is over. The new forwarder binds it when the next
/// datagram of the flow arrives, and would lose that datagram.
bool SourceMove::isFree(const SourceFlow& flow, Clock::time_point now) {
    const bool taken = actions_.tryToBind(flow.source) == -EADDRINUSE;
    if (taken && (!giveUpAt_ || now < *giveUpAt_)) {
        giveUpAt_ = giveUpAt_.value_or(now + bindPatience);
        tryAgainAt_ = now + bindPause;
        return false;
    }
    if (taken) {
        report(flow, "its source " + flow.source.host + ", port " +
                         std::to_string(flow.source.port) +
                         " is in use, although the old forwarder has deleted the flow: the new "
                         "forwarder tries to bind it with each request");
    }
    giveUpAt_.reset();
    tryAgainAt_.reset();
    return true;
}

void SourceMove::report(const SourceFlow& flow, const std::string& text) const {
    actions_.report("flow " + flow.name + " (label " + labelInBothForms(flow.label) + "): " + text);
}

}  // namespace vesk::controller
