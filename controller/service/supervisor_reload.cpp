// Reads the configuration file again on SIGHUP. The loop is in supervisor.cpp, a folder of
// fragments in supervisor_fragments.cpp.
#include <string>
#include <utility>
#include <vector>

#include "config/configuration_reader.h"
#include "config/instance_configurations.h"
#include "config/key_mask.h"
#include "service/host_limits.h"
#include "service/steered_reload.h"
#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::reload() {
    if (!running()) {
        log_.say(LogLevel::warn, "SIGHUP is ignored: the controller is ending");
        return;
    }
    if (replacement_) {
        log_.say(LogLevel::info, "reloads the file after the replacement");
        reloadWaits_ = true;
        return;
    }
    tellReloading();
    if (fragments_) {
        folderWatch_->look();
        applyFragments(fragments_->read(FilesToRead::all));
    } else {
        readFile();
    }
}

void Supervisor::tellReloading() {
    if (ready_) {
        reloadTold_ = true;
        notification_.reloading();
    }
}

void Supervisor::readFile() {
    ConfigurationReading reading =
        readConfiguration(options_.file, ReadingRules{options_.allowReadableKeys});
    countReload();
    if (reading.configuration) {
        applyReload(std::move(*reading.configuration), ReloadOutcome::done);
        return;
    }
    const std::string file = options_.file.string();
    for (const Problem& problem : reading.problems) {
        log_.say(LogLevel::error, describe(problem, file));
    }
    log_.say(LogLevel::error,
             maskKeyDigits(file) + " is not usable: the running configuration is unchanged");
    refuseReload();
}

void Supervisor::refuseReload() {
    reload_ = ReloadOutcome::fileRefused;
    countReload();
    tellReloaded("The last reload failed; " + summary());
}

void Supervisor::applyReload(Configuration configuration, ReloadOutcome outcome) {
    reload_ = outcome;
    for (const std::string& key : keepSteering(wanted_, configuration)) {
        log_.say(LogLevel::warn, key + ": the change applies at the next start of the controller");
    }
    log_.setLimited(configuration.supervision.logLimit);
    for (const std::string& warning : limitWarnings(configuration)) {
        log_.say(LogLevel::warn, warning);
    }
    peers_.take(configuration.lateral, wanted_.lateral);
    publishPeers();
    takeRotations(configuration);
    shareOut(configuration);
    wanted_ = std::move(configuration);
    wanted_.flows.clear();
    reloadMetrics();
    commonRound_ = Instance::Round::reload;
    bool sent = false;
    for (const auto& instance : instances_) {
        instance->applyReload();
        sent = sent || instance->hasForwarder();
    }
    if (!sent) {
        tellReloaded("The forwarder will be started again");
    }
    replaceAdopted();
}

/// Gives each instance its part.
void Supervisor::shareOut(const Configuration& configuration) {
    std::vector<Configuration> parts = instanceConfigurations(
        configuration, isSteered(configuration) ? ports_ : firstPorts(configuration));
    for (const auto& instance : instances_) {
        instance->take(std::move(parts[instance->identity().number]));
    }
}

}  // namespace vesk::controller
