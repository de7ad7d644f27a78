// A reload that changes the downstream address. The forwarder must close the old address before it
// opens the new one, so the controller first tries the new address itself. If the forwarder still
// cannot open it, the controller moves the forwarder back. The loop is in supervisor.cpp.
#include <algorithm>
#include <system_error>
#include <utility>

#include "commands/command_lines.h"
#include "service/listener_remedy.h"
#include "service/supervisor.h"
#include "service/trial_listen.h"

namespace vesk::controller {

/// Only if the forwarder listens, so that it could lose its address.
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

/// A trial would collide with the forwarder's own sockets, which it closes before it opens the new
/// one.
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
                              ". The forwarder continues to listen on " + old.host + ", port " +
                              std::to_string(old.port)};
    log_.say(LogLevel::error, describe(problem, options_.file.string()));
    wanted_.downstream = old;
    if (reload_) {
        reload_ = ReloadOutcome::addressRefused;
    }
}

/// If several changes are outstanding, only the outcome of the last one counts.
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
