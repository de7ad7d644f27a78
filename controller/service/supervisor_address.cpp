// A reload that moves the downstream address. The forwarder has to close the old address before it
// opens the new one, so the controller tries the new one first, and goes back to the old one where
// the forwarder fails all the same. The loop is in supervisor.cpp.
#include <algorithm>
#include <system_error>
#include <utility>

#include "commands/command_lines.h"
#include "service/listener_remedy.h"
#include "service/supervisor.h"
#include "service/trial_listen.h"

namespace vesk::controller {

/// Only where there is something to lose.
void Supervisor::tryNewAddress() {
    if (!session_) {
        previousAddress_.reset();
    }
    if (!deployment_.listening() || wanted_.downstream == deployment_.running().downstream) {
        return;
    }
    const HostPort old = previousAddress_.value_or(deployment_.running().downstream);
    const int error = usesItself(wanted_.downstream) ? 0 : tryToListen(wanted_.downstream);
    if (error != 0) {
        keepAddress(deployment_.running().downstream, std::generic_category().message(-error));
    } else {
        previousAddress_ = old;
    }
}

/// A trial would meet the forwarder's own sockets, which it closes before it opens the new one.
bool Supervisor::usesItself(const HostPort& address) const {
    const Configuration& running = deployment_.running();
    return session_ && (mayCollide(address, running.downstream) ||
                        std::ranges::any_of(running.flows, [&](const auto& entry) {
                            const std::optional<HostPort>& source = entry.second.source;
                            return source && mayCollide(address, *source);
                        }));
}

void Supervisor::keepAddress(const HostPort& old, std::string_view reason) {
    const ListenLines& lines = wanted_.downstreamLines;
    const bool samePort = wanted_.downstream.port == old.port;
    const Problem problem{samePort ? lines.address : lines.port,
                          cannotListen(startCommand(wanted_.downstream), reason) +
                              ". The forwarder stays on " + old.host + ", port " +
                              std::to_string(old.port)};
    log_.say(LogLevel::error, describe(problem, options_.file.string()));
    wanted_.downstream = old;
    if (reload_) {
        reload_ = ReloadOutcome::addressRefused;
    }
}

/// Of several changes that are under way the last one decides.
void Supervisor::noteStart(const Outcome& outcome) {
    const bool last =
        outcome.command.attributes == startCommand(deployment_.running().downstream).attributes;
    const std::optional<HostPort> old =
        last ? std::exchange(previousAddress_, std::nullopt) : std::nullopt;
    if (outcome.errors.empty()) {
        return;
    }
    if (!old) {
        log_.say(LogLevel::error, cannotListen(outcome.command, outcome.errors.front()));
        return;
    }
    keepAddress(*old, outcome.errors.front());
    sendAll(deployment_.listenOn(*old));
}

}  // namespace vesk::controller
