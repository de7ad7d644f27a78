// An instance's exchange with its forwarder: its output, the commands to it, and how it is ended.
// The loop is in supervisor.cpp, the start of the forwarder in instance.cpp.
#include <csignal>
#include <string>
#include <utility>

#include "commands/command_lines.h"
#include "service/instance.h"
#include "service/plural_text.h"

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

void Instance::handle(const OutputEvent& event) {
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
void Instance::republish(const LogLine& line) {
    if (line.level <= levelNamed(wanted_.forwarder.logLevel)) {
        log_.passOn(line);
    }
}

void Instance::handleOutcome(const Outcome& outcome) {
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

void Instance::handleReport(const Report& report) {
    if (metrics_ != nullptr) {
        metrics_->update(report, deployment_.flowNames(), identity_.child);
    }
    rotationTraffic_.observe(report);
    if (report.lateral) {
        const DatagramCounters& counters = *report.lateral;
        peerSuspected_ =
            lateralWatch_.observe({counters.received, counters.sent, counters.dropped}) ||
            peerSuspected_;
    }
    const std::optional<std::string> warning = kernelWatch_.takeWarning();
    // It is about the host, so one instance reports it for all.
    if (warning && identity_.number == 0) {
        log_.say(LogLevel::warn, *warning);
    }
    if (shutdown_.draining()) {
        carryOut(shutdown_.observe(trafficCounters(report), Clock::now()));
    }
}

bool Instance::takeSuspicion() {
    return std::exchange(peerSuspected_, false);
}

/// The forwarder writes reports only at info level and above, so the level is raised if necessary.
void Instance::askForReport() {
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

void Instance::sendAll(const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        session_->send(command);
    }
}

void Instance::take(Configuration wanted) {
    wanted_ = std::move(wanted);
    rotationTraffic_.take(wanted_.flows);
    restartPause_ = firstPause();
    tryNewAddress();
}

void Instance::applyReload() {
    if (!session_ || adopted_) {
        return;
    }
    const ConfigurationChanges changes = deployment_.change(wanted_);
    for (const std::string& name : changes.waiting) {
        log_.say(LogLevel::warn, name + ": the change applies at the next start of the forwarder");
    }
    const std::string subjects = listSubjects(changes.commands);
    if (!isOneOfSeveral() || !subjects.empty()) {
        log_.say(LogLevel::info, "reload: " + countOf(changes.commands.size(), "command") +
                                     " to send" + (subjects.empty() ? "" : ": " + subjects));
    }
    round_ = Round::reload;
    publishStage(Stage::settingUp);
    reportClock_.stop();
    sendAll(changes.commands);
}

void Instance::deleteFlows(const std::vector<std::uint32_t>& labels) {
    for (const std::uint32_t label : labels) {
        wanted_.flows.erase(label);
        if (session_) {
            sendAll(deployment_.remove(label));
        }
    }
    rotationTraffic_.take(wanted_.flows);
    if (session_) {
        publishFlows();
    }
}

// ---- The end of the controller. ----

bool Instance::terminate(std::chrono::seconds drain) {
    if (running()) {
        startAgainAt_.reset();
        listenAgainAt_.reset();
        publishStage(Stage::draining);
    }
    if (!session_) {
        ended_ = true;
        return false;
    }
    const bool drains = !shutdown_.begun() && drain != std::chrono::seconds(0);
    carryOut(shutdown_.ask(drain, Clock::now()));
    if (drains) {
        askForReport();
    }
    return drains;
}

void Instance::carryOut(const GracefulShutdown::Step& step) {
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
            if (kept_) {
                kept_->removeInput();
            }
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
