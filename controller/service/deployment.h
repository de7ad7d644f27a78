// What was sent to the running forwarder, and what it has accepted. Called by service/instance,
// which sends the resulting commands and reports their outcomes back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "child/fence_ledger.h"
#include "commands/command.h"
#include "commands/configuration_changes.h"
#include "config/configuration.h"

namespace vesk::controller {

class Deployment {
 public:
    /// The commands for a new forwarder.
    std::vector<Command> begin(const Configuration& wanted);

    /// For a forwarder that was taken over: it is assumed to have all of this and to listen.
    void assume(const Configuration& wanted);

    /// The commands for the running forwarder; what was refused before is tried again. running() is
    /// `after` of the result, which is empty.
    ConfigurationChanges change(const Configuration& wanted);

    /// The command that deletes the flow; none if it is not declared.
    std::vector<Command> remove(std::uint32_t label);

    /// The same for the lateral stream alone. Once a stream has been sent, these are commands for
    /// changed addresses only: a stream that was refused is tried again by listenAgain().
    std::vector<Command> changeLateral(const std::optional<Lateral>& wanted);

    /// Records the outcome of a command.
    void note(const Outcome& outcome);

    /// What was sent to the forwarder; refusals() has the parts that it refused.
    const Configuration& running() const { return running_; }

    /// The level at which the forwarder logs.
    const std::string& logLevel() const { return running_.forwarder.logLevel; }

    std::size_t declaredFlows() const { return running_.flows.size(); }
    std::size_t acceptedFlows() const { return declaredFlows() - refusals_.flows.size(); }
    /// The flows that another instance has, too: by label, whether this forwarder accepted it.
    std::map<std::uint32_t, bool> sharedFlows() const;
    const Refusals& refusals() const { return refusals_; }

    /// Whether the forwarder, or the last one if none runs, listens for peers.
    bool listening() const { return listeningOn_.has_value(); }
    /// The address on which it listens. During a move this may differ from the address that was
    /// last sent to it.
    const std::optional<HostPort>& listeningOn() const { return listeningOn_; }
    /// The last address that a forwarder listened on; none once it could not be opened again.
    const std::optional<HostPort>& lastListenedOn() const { return lastListenedOn_; }
    /// The address to return to after a start that was refused, once its outcome has been noted.
    /// None if the start succeeded, if another was sent after it, or if there is no such address.
    std::optional<HostPort> addressToReturnTo(const Outcome& start) const;
    /// Whether it listens for other instances; none if no lateral stream is configured.
    std::optional<bool> lateralListening() const;
    /// Whether it listens on every configured address.
    bool listensEverywhere() const { return listening() && lateralListening().value_or(true); }

    /// Moves the listener to `address`; returns the commands for that.
    std::vector<Command> listenOn(const HostPort& address);

    /// The commands that make a forwarder try the listeners again that it refused.
    std::vector<Command> listenAgain() const;

    /// The names of the flows by label.
    const std::map<std::uint32_t, std::string>& flowNames() const { return names_; }

 private:
    void take(Configuration running);
    void noteStart(const std::optional<HostPort>& address, bool refused);

    Configuration running_;
    Refusals refusals_;
    std::optional<HostPort> listeningOn_;
    std::optional<HostPort> lastListenedOn_;
    bool lateralListening_ = false;
    std::map<std::uint32_t, std::string> names_;
};

}  // namespace vesk::controller
