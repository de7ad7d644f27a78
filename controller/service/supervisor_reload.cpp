// Reads the configuration file again on SIGHUP. The loop is in supervisor.cpp.
#include <string>
#include <utility>

#include "config/configuration_reader.h"
#include "config/key_mask.h"
#include "service/host_limits.h"
#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::reload() {
    if (!running()) {
        log_.say(LogLevel::warn, "SIGHUP is ignored: the controller is ending");
        return;
    }
    if (ready_) {
        reloadTold_ = true;
        notification_.reloading();
    }
    ConfigurationReading reading =
        readConfiguration(options_.file, ReadingRules{options_.allowReadableKeys});
    countReload();
    if (!reading.configuration) {
        refuseReload(reading.problems);
        return;
    }
    applyReload(std::move(*reading.configuration));
}

void Supervisor::refuseReload(const Problems& problems) {
    const std::string file = options_.file.string();
    for (const Problem& problem : problems) {
        log_.say(LogLevel::error, describe(problem, file));
    }
    log_.say(LogLevel::error,
             maskKeyDigits(file) + " is not usable: the running configuration is unchanged");
    reload_ = ReloadOutcome::fileRefused;
    countReload();
    tellReloaded("The last reload failed; " + summary());
}

void Supervisor::applyReload(Configuration configuration) {
    reload_ = ReloadOutcome::done;
    wanted_ = std::move(configuration);
    log_.setLimited(wanted_.supervision.logLimit);
    for (const std::string& warning : limitWarnings(wanted_)) {
        log_.say(LogLevel::warn, warning);
    }
    reloadMetrics(wanted_.metrics);
    bool sent = false;
    for (const auto& instance : instances_) {
        instance->take(wanted_);
        instance->applyReload();
        sent = sent || instance->hasForwarder();
    }
    if (!sent) {
        tellReloaded("The forwarder will be started again");
    }
}

}  // namespace vesk::controller
