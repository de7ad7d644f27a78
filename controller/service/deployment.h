// What the running forwarder has been told and has accepted. Called by service/supervisor, which
// sends what comes of it and reports the outcomes back.
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
    /// What a new forwarder has to be told.
    std::vector<Command> begin(const Configuration& wanted);

    /// What the running one has to be told; what was refused before is tried again.
    ConfigurationChanges change(const Configuration& wanted);

    /// Notes what came of a command.
    void note(const Outcome& outcome);

    /// What it was told; refusals() says what it has not taken of that.
    const Configuration& running() const { return running_; }

    /// The level at which the forwarder logs.
    const std::string& logLevel() const { return running_.forwarder.logLevel; }

    std::size_t declaredFlows() const { return running_.flows.size(); }
    std::size_t acceptedFlows() const { return declaredFlows() - refusals_.flows.size(); }
    const Refusals& refusals() const { return refusals_; }

    /// Whether the last forwarder that was told to listen for peers does so.
    bool listening() const { return listeningOn_.has_value(); }
    /// Where it does so; while it moves or is moved back, not what it was told last.
    const std::optional<HostPort>& listeningOn() const { return listeningOn_; }
    /// The same of the lateral stream; none where no stream is configured.
    std::optional<bool> lateralListening() const;
    /// Whether it listens wherever the configuration says.
    bool listensEverywhere() const { return listening() && lateralListening().value_or(true); }

    /// Has it listen on another address than it was told last; returns the commands.
    std::vector<Command> listenOn(const HostPort& address);

    /// What a forwarder that refused to listen has to be told to try it again.
    std::vector<Command> listenAgain() const;

    /// By label.
    const std::map<std::uint32_t, std::string>& flowNames() const { return names_; }

 private:
    void take(Configuration running);

    Configuration running_;
    Refusals refusals_;
    std::optional<HostPort> listeningOn_;
    bool lateralListening_ = false;
    std::map<std::uint32_t, std::string> names_;
};

}  // namespace vesk::controller
