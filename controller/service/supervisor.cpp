#include "service/supervisor.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include "commands/command_lines.h"
#include "config/key_mask.h"
#include "service/listener_remedy.h"
#include "service/program_path.h"

namespace vesk::controller {

Supervisor::Supervisor(const Options& options, Configuration configuration, LogOutput& log)
    : options_(options),
      wanted_(std::move(configuration)),
      log_(log),
      signals_({SIGHUP, SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGUSR2}),
      servedMetrics_(wanted_.metrics),
      restartPause_(firstPause()),
      listenPause_(restartPause_),
      servePause_(restartPause_) {
    log_.setLimited(wanted_.supervision.logLimit);
}

int Supervisor::run() {
    if (!beginMetrics()) {
        return exit_status::metricsFailed;
    }
    if (notification_.watchdogInterval()) {
        aliveAt_ = Clock::now();
    }
    if (!startForwarder()) {
        return exit_status::forwarderFailed;
    }
    while (!ended_) {
        waitAndHandle();
    }
    return exitStatus_;
}

// ---- One turn of the loop. ----

bool Supervisor::due(Deadline& deadline) {
    if (!deadline || *deadline > Clock::now()) {
        return false;
    }
    deadline.reset();
    return true;
}

int Supervisor::pollTimeout() const {
    Deadline nearest;
    for (const Deadline& deadline :
         {startAgainAt_, listenAgainAt_, reportClock_.dueAt(), shutdown_.dueAt(), aliveAt_,
          serveAgainAt_, answerDue(), log_.countDueAt()}) {
        if (deadline && (!nearest || *deadline < *nearest)) {
            nearest = deadline;
        }
    }
    if (!nearest) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*nearest - Clock::now()).count();
    constexpr std::int64_t longest = 60000;
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, longest));
}

void Supervisor::waitAndHandle() {
    // poll(2) ignores a descriptor of -1.
    const bool reading = session_ && !session_->outputEnded();
    std::array<pollfd, 4> watched{{
        {signals_.descriptor(), POLLIN, 0},
        {reading ? session_->output() : -1, POLLIN, 0},
        {session_ && session_->wantsToWrite() ? session_->input() : -1, POLLOUT, 0},
        {log_.pending() ? log_.descriptor() : -1, POLLOUT, 0},
    }};
    if (poll(watched.data(), watched.size(), pollTimeout()) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    if (watched[1].revents != 0) {
        readForwarder();
    }
    if (watched[0].revents != 0) {
        handleSignals();
    }
    if (round_ != Round::none && session_ && session_->unanswered() == 0) {
        finishRound();
    }
    if (endStatus_ && session_->outputEnded()) {
        forwarderEnded();
    }
    handleTime();
    if (session_) {
        session_->write();
    }
    log_.flush();
}

void Supervisor::readForwarder() {
    for (const OutputEvent& event : session_->read()) {
        handle(event);
    }
}

void Supervisor::handleSignals() {
    while (const std::optional<int> number = signals_.next()) {
        handleSignal(*number);
    }
}

void Supervisor::handleSignal(int number) {
    if (number == SIGHUP) {
        reload();
    } else if (number == SIGCHLD) {
        if (session_ && !endStatus_) {
            endStatus_ = session_->reap();
        }
    } else if (number == SIGUSR1 || number == SIGUSR2) {
        // Some services rotate their logs on one of these signals. Unhandled, it would end
        // the controller.
        log_.say(LogLevel::warn,
                 std::string("SIG") + sigabbrev_np(number) +
                     " is ignored: SIGHUP reloads the file, SIGTERM ends the controller");
    } else {
        terminate();
    }
}

void Supervisor::handleTime() {
    if (due(startAgainAt_)) {
        startAgain();
    }
    if (due(listenAgainAt_)) {
        listenAgain();
    }
    if (due(aliveAt_)) {
        answerWatchdog();
    }
    watchForwarder();
    if (due(serveAgainAt_)) {
        serveMetrics();
    }
    if (reportClock_.due(Clock::now())) {
        askForReport();
    }
    if (session_) {
        carryOut(shutdown_.goOn(Clock::now()));
    }
}

// ---- Start and end of the forwarder. ----

bool Supervisor::startForwarder() {
    const std::string program =
        programPath(options_.program, wanted_.forwarder.program, ownFolder());
    try {
        session_.emplace(program, programArguments(wanted_.forwarder),
                         programEnvironment(wanted_.forwarder));
    } catch (const std::system_error& error) {
        const bool full = error.code() == std::errc::too_many_files_open;
        log_.say(LogLevel::error,
                 "cannot run " + maskKeyDigits(program) + ": " +
                     (full ? std::string(noDescriptorsLeft) : error.code().message()));
        return false;
    }
    log_.say(LogLevel::info,
             "started " + maskKeyDigits(program) + ", process " + std::to_string(session_->pid()));
    round_ = Round::replay;
    reportClock_.reset();
    flowDescriptors_.clear();
    publishStage(Stage::settingUp);
    sendAll(deployment_.begin(wanted_));
    if (metrics_) {
        metrics_->childUp(true);
    }
    return true;
}

void Supervisor::startAgain() {
    if (!startForwarder()) {
        pauseAfter(Clock::duration::zero());
        return;
    }
    if (metrics_) {
        metrics_->countRestart();
    }
}

RestartPause Supervisor::firstPause() const {
    return {wanted_.supervision.restartPause, wanted_.supervision.restartPauseMax};
}

void Supervisor::pauseAfter(Clock::duration lived) {
    const std::chrono::milliseconds pause = restartPause_.after(lived);
    startAgainAt_ = Clock::now() + pause;
    log_.say(LogLevel::warn,
             "starts the forwarder again in " + std::to_string(pause.count()) + " ms");
    notification_.status("The forwarder ended and will be started again");
}

void Supervisor::forwarderEnded() {
    const int status = *std::exchange(endStatus_, std::nullopt);
    const Command* const current = session_->current();
    const Clock::duration lived = session_->age();
    const bool good = endedWell(status) && !running() && !shutdown_.draining();
    std::string text = "the forwarder " + describeEnd(status);
    if (running() && current != nullptr) {
        text += " while handling the command for " + describe(*current);
    }
    log_.say(good ? LogLevel::info : LogLevel::error, text);
    session_.reset();
    hung_ = false;
    reportClock_.stop();
    listenAgainAt_.reset();
    if (metrics_) {
        metrics_->childUp(false);
    }
    if (running()) {
        pauseAfter(lived);
        return;
    }
    exitStatus_ = good ? exit_status::success : exit_status::forwarderFailed;
    ended_ = true;
}

}  // namespace vesk::controller
