// The supervisor's talk with the forwarder: what it says, what it is told, and how it is brought to
// its end. The loop and the forwarder's life are in supervisor.cpp.
#include <csignal>
#include <string>
#include <utility>

#include "commands/command_lines.h"
#include "config/configuration_reader.h"
#include "config/key_mask.h"
#include "service/counted.h"
#include "service/limits.h"
#include "service/supervisor.h"

namespace vesk::controller {

namespace {

constexpr std::chrono::seconds restOfTraffic{1};
constexpr std::chrono::milliseconds drainingReports{200};
constexpr std::chrono::seconds endPatience{5};
constexpr std::chrono::seconds signalPatience{2};

std::string join(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) {
        result.append(result.empty() ? "" : "; ").append(text);
    }
    return result;
}

}  // namespace

// ---- What the forwarder says. ----

void Supervisor::handle(const OutputEvent& event) {
    if (const auto* const line = std::get_if<LogLine>(&event)) {
        count(*line);
        republish(*line);
    } else if (const auto* const outcome = std::get_if<Outcome>(&event)) {
        handleOutcome(*outcome);
    } else if (const auto* const report = std::get_if<Report>(&event)) {
        handleReport(*report);
    }
}

/// For its reports the forwarder is set to info level for a moment, whatever level was asked for.
void Supervisor::republish(const LogLine& line) {
    if (line.level <= levelNamed(wanted_.forwarder.logLevel)) {
        log_.passOn(line);
    }
}

void Supervisor::handleOutcome(const Outcome& outcome) {
    const std::string subject = describe(outcome.command);
    if (!outcome.errors.empty()) {
        log_.say(LogLevel::error, subject + " was refused: " + join(outcome.errors));
    }
    if (!outcome.warnings.empty()) {
        log_.say(LogLevel::warn, subject + ": " + join(outcome.warnings));
    }
    deployment_.note(outcome);
    noteListener(outcome);
    if (outcome.command.word == "stats") {
        reportAsked_ = false;
    }
}

void Supervisor::handleReport(const Report& report) {
    if (metrics_) {
        metrics_->update(report, deployment_.flowNames());
    }
    if (const std::optional<std::string> warning = kernelWatch_.takeWarning()) {
        log_.say(LogLevel::warn, *warning);
    }
    if (phase_ == Phase::draining && standstill_->observe(trafficCounters(report), Clock::now())) {
        closeInput();
    }
}

/// Below info level the forwarder reports nothing, so it is asked at info level.
void Supervisor::askForReport() {
    reportAt_ = Clock::now() + (phase_ == Phase::running
                                    ? std::chrono::milliseconds(wanted_.supervision.stats)
                                    : drainingReports);
    if (!session_ || reportAsked_) {
        return;
    }
    reportAsked_ = true;
    askTheKernel();
    const std::string& level = deployment_.logLevel();
    const bool quiet = levelNamed(level) < LogLevel::info;
    if (quiet) {
        session_->send(logCommand("info"));
    }
    session_->send(statsCommand());
    if (quiet) {
        session_->send(logCommand(level));
    }
}

// ---- What it is told. ----

void Supervisor::sendAll(const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        session_->send(command);
    }
}

void Supervisor::reload() {
    if (phase_ != Phase::running) {
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
    reload_ = ReloadOutcome::done;
    wanted_ = std::move(*reading.configuration);
    restartPause_ = firstPause();
    log_.setLimited(wanted_.supervision.logLimit);
    for (const std::string& warning : limitWarnings(wanted_)) {
        log_.say(LogLevel::warn, warning);
    }
    reloadMetrics();
    tryNewAddress();
    if (session_) {
        applyReload();
    } else {
        tellReloaded("The forwarder is about to be started again");
    }
}

void Supervisor::refuseReload(const Problems& problems) {
    const std::string file = options_.file.string();
    for (const Problem& problem : problems) {
        log_.say(LogLevel::error, describe(problem, file));
    }
    log_.say(LogLevel::error, maskKeyDigits(file) + " is not usable: everything stays as it was");
    reload_ = ReloadOutcome::fileRefused;
    countReload();
    tellReloaded("The last reload failed; " + summary());
}

void Supervisor::applyReload() {
    const ConfigurationChanges changes = deployment_.change(wanted_);
    for (const std::string& name : changes.waiting) {
        log_.say(LogLevel::warn, name + ": takes effect when the forwarder is started again");
    }
    const std::string subjects = listSubjects(changes.commands);
    log_.say(LogLevel::info, "reload: " + countOf(changes.commands.size(), "command") + " to send" +
                                 (subjects.empty() ? "" : ": " + subjects));
    round_ = Round::reload;
    publishStage(Stage::settingUp);
    reportAt_.reset();
    sendAll(changes.commands);
}

// ---- Its end. ----

void Supervisor::terminate() {
    if (phase_ == Phase::draining) {
        // Asked twice: somebody is in a hurry.
        closeInput();
    }
    if (phase_ != Phase::running) {
        return;
    }
    startAgainAt_.reset();
    listenAgainAt_.reset();
    notification_.stopping("Draining");
    publishStage(Stage::draining);
    if (!session_) {
        phase_ = Phase::ended;
        return;
    }
    if (wanted_.supervision.drain == std::chrono::seconds::zero()) {
        closeInput();
        return;
    }
    log_.say(LogLevel::info,
             "draining: ends when the traffic has stood still for a second, or in " +
                 std::to_string(wanted_.supervision.drain.count()) + " s");
    phase_ = Phase::draining;
    standstill_.emplace(restOfTraffic);
    stepAt_ = Clock::now() + wanted_.supervision.drain;
    askForReport();
}

void Supervisor::nextStepOfEnd() {
    if (phase_ == Phase::draining) {
        log_.say(LogLevel::warn, std::string(standstill_->observed() ? "there is still traffic"
                                                                     : "nothing is reported") +
                                     ", and the time to drain is over");
        closeInput();
    } else if (phase_ == Phase::closing) {
        log_.say(LogLevel::error, "the forwarder does not end: terminating it");
        phase_ = Phase::terminating;
        stepAt_ = Clock::now() + signalPatience;
        session_->signal(SIGTERM);
    } else if (phase_ == Phase::terminating) {
        log_.say(LogLevel::error, "the forwarder still does not end: killing it");
        phase_ = Phase::killing;
        session_->signal(SIGKILL);
    }
}

void Supervisor::closeInput() {
    phase_ = Phase::closing;
    reportAt_.reset();
    stepAt_ = Clock::now() + endPatience;
    session_->finishInput();
}

}  // namespace vesk::controller
