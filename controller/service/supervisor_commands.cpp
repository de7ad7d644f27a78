// The supervisor's exchange with the forwarder: its output, the commands to it, and how it is
// ended. The loop and the start of the forwarder are in supervisor.cpp.
#include <csignal>
#include <string>
#include <utility>

#include "commands/command_lines.h"
#include "config/configuration_reader.h"
#include "config/key_mask.h"
#include "service/host_limits.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

namespace {

constexpr std::chrono::milliseconds drainingReports{200};

std::string join(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) {
        result.append(result.empty() ? "" : "; ").append(text);
    }
    return result;
}

}  // namespace

// ---- Output of the forwarder. ----

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

/// During a report the forwarder logs at info level even if a lower level is configured.
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
        reportClock_.answered();
    }
}

void Supervisor::handleReport(const Report& report) {
    if (metrics_) {
        metrics_->update(report, deployment_.flowNames());
    }
    if (const std::optional<std::string> warning = kernelWatch_.takeWarning()) {
        log_.say(LogLevel::warn, *warning);
    }
    if (shutdown_.draining()) {
        carryOut(shutdown_.observe(trafficCounters(report), Clock::now()));
    }
}

/// The forwarder writes reports only at info level and above, so the level is raised if necessary.
void Supervisor::askForReport() {
    if (!reportClock_.ask(Clock::now(), running() ? wanted_.supervision.stats : drainingReports)) {
        return;
    }
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

// ---- Commands to the forwarder. ----

void Supervisor::sendAll(const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        session_->send(command);
    }
}

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
        tellReloaded("The forwarder will be started again");
    }
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

void Supervisor::applyReload() {
    const ConfigurationChanges changes = deployment_.change(wanted_);
    for (const std::string& name : changes.waiting) {
        log_.say(LogLevel::warn, name + ": the change applies at the next start of the forwarder");
    }
    const std::string subjects = listSubjects(changes.commands);
    log_.say(LogLevel::info, "reload: " + countOf(changes.commands.size(), "command") + " to send" +
                                 (subjects.empty() ? "" : ": " + subjects));
    round_ = Round::reload;
    publishStage(Stage::settingUp);
    reportClock_.stop();
    sendAll(changes.commands);
}

// ---- The end of the controller. ----

void Supervisor::terminate() {
    if (running()) {
        startAgainAt_.reset();
        listenAgainAt_.reset();
        notification_.stopping("Draining");
        publishStage(Stage::draining);
    }
    if (!session_) {
        ended_ = true;
        return;
    }
    const bool drains = !shutdown_.begun() && wanted_.supervision.drain != std::chrono::seconds(0);
    carryOut(shutdown_.ask(wanted_.supervision.drain, Clock::now()));
    if (drains) {
        log_.say(LogLevel::info, "draining: ends after a second without traffic, or in " +
                                     std::to_string(wanted_.supervision.drain.count()) +
                                     " s at the latest");
        askForReport();
    }
}

void Supervisor::carryOut(const GracefulShutdown::Step& step) {
    if (!step.reason.empty()) {
        log_.say(
            step.action == GracefulShutdown::Action::closeInput ? LogLevel::warn : LogLevel::error,
            step.reason);
    }
    switch (step.action) {
        case GracefulShutdown::Action::none:
            break;
        case GracefulShutdown::Action::closeInput:
            reportClock_.stop();
            session_->finishInput();
            break;
        case GracefulShutdown::Action::terminate:
            session_->signal(SIGTERM);
            break;
        case GracefulShutdown::Action::kill:
            session_->signal(SIGKILL);
            break;
    }
}

}  // namespace vesk::controller
