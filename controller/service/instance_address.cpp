// A reload that changes the downstream address. The forwarder must close the old address before it
// opens the new one, so the controller first tries the new address itself. If the forwarder still
// cannot open it, the controller moves the forwarder back. The loop is in supervisor.cpp.
#include <algorithm>
#include <system_error>
#include <utility>

#include "commands/command_lines.h"
#include "config/problem.h"
#include "service/instance.h"
#include "service/listener_remedy.h"
#include "service/trial_listen.h"

namespace vesk::controller {

/// Only if the forwarder has an address that it could lose, or is about to return to it.
void Instance::tryNewAddress() {
    const HostPort& running = deployment_.running().downstream;
    if (!deployment_.lastListenedOn() || wanted_.downstream == running ||
        usesItself(wanted_.downstream)) {
        return;
    }
    if (const int error = tryToListen(wanted_.downstream); error != 0) {
        keepAddress(running, std::generic_category().message(-error));
    }
}

/// A trial would collide with the forwarder's own sockets, which it closes before it opens the new
/// one. While it moves, it may still have the socket of the address before.
bool Instance::usesItself(const HostPort& address) const {
    const Configuration& running = deployment_.running();
    const std::optional<HostPort>& before = deployment_.lastListenedOn();
    return session_ &&
           (mayCollide(address, running.downstream) || (before && mayCollide(address, *before)) ||
            std::ranges::any_of(running.flows, [&](const auto& entry) {
                const std::optional<HostPort>& source = entry.second.source;
                return source && mayCollide(address, *source);
            }));
}

void Instance::keepAddress(const HostPort& old, std::string_view reason) {
    const ListenLines& lines = wanted_.downstreamLines;
    const bool samePort = wanted_.downstream.port == old.port;
    const Problem problem{samePort ? lines.address : lines.port,
                          cannotListen(startCommand(wanted_.downstream), reason) +
                              ". The forwarder continues to listen on " + old.host + ", port " +
                              std::to_string(old.port)};
    log_.say(LogLevel::error, describe(problem, lines.file));
    wanted_.downstream = old;
    addressRefused_ = true;
}

bool Instance::takeAddressRefusal() {
    return std::exchange(addressRefused_, false);
}

void Instance::noteStart(const Outcome& outcome) {
    if (outcome.errors.empty()) {
        return;
    }
    const std::optional<HostPort> old = deployment_.addressToReturnTo(outcome);
    if (!old) {
        log_.say(LogLevel::error, cannotListen(outcome.command, outcome.errors.front()));
        return;
    }
    keepAddress(*old, outcome.errors.front());
    sendAll(deployment_.listenOn(*old));
}

}  // namespace vesk::controller
