#include "service/supervisor.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <system_error>
#include <utility>

#include "config/instance_configurations.h"

namespace vesk::controller {

Supervisor::Supervisor(const Options& options, Configuration configuration, LogOutput& log)
    : options_(options),
      wanted_(std::move(configuration)),
      log_(log),
      signals_({SIGHUP, SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGUSR2}),
      servedMetrics_(wanted_.metrics),
      servePause_(wanted_.supervision.restartPause, wanted_.supervision.restartPauseMax),
      steerPause_(servePause_) {
    log_.setLimited(wanted_.supervision.logLimit);
}

int Supervisor::run() {
    if (!beginMetrics()) {
        return exit_status::metricsFailed;
    }
    if (notification_.watchdogInterval()) {
        aliveAt_ = Clock::now();
    }
    if (!begin()) {
        return exit_status::forwarderFailed;
    }
    while (!ended()) {
        waitAndHandle();
    }
    const bool well =
        std::ranges::all_of(instances_, [](const auto& instance) { return instance->endedWell(); });
    return well ? exit_status::success : exit_status::forwarderFailed;
}

// ---- One turn of the loop. ----

int Supervisor::pollTimeout() const {
    std::vector<Deadline> deadlines{aliveAt_,    serveAgainAt_,  steerAgainAt_,
                                    leaveUntil_, peers_.dueAt(), log_.countDueAt()};
    if (folderWatch_) {
        deadlines.emplace_back(folderWatch_->dueAt());
    }
    for (const Instance* const instance : allInstances()) {
        deadlines.push_back(instance->dueAt());
    }
    if (replacement_) {
        deadlines.push_back(replacement_->giveUpAt);
        if (replacement_->sources) {
            deadlines.push_back(replacement_->sources->dueAt());
        }
    }
    const Deadline nearest = nearestOf(deadlines);
    if (!nearest) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*nearest - Clock::now()).count();
    constexpr std::int64_t longest = 60000;
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, longest));
}

void Supervisor::waitAndHandle() {
    std::vector<pollfd> watched{{signals_.descriptor(), POLLIN, 0},
                                {log_.pending() ? log_.descriptor() : -1, POLLOUT, 0},
                                {folderWatch_ ? folderWatch_->descriptor() : -1, POLLIN, 0}};
    const std::size_t first = watched.size();
    const std::vector<Instance*> instances = allInstances();
    for (const Instance* const instance : instances) {
        std::ranges::copy(instance->watched(), std::back_inserter(watched));
    }
    const std::size_t asked = watched.size();
    std::ranges::copy(peers_.watched(), std::back_inserter(watched));
    if (poll(watched.data(), watched.size(), pollTimeout()) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    for (std::size_t i = 0; i < instances.size(); ++i) {
        const std::size_t output = first + Instance::watchedDescriptors * i;
        if (watched[output].revents != 0) {
            instances[i]->read();
        }
        if (watched[output + 2].revents != 0) {
            instances[i]->reap();
        }
    }
    if (watched[0].revents != 0) {
        handleSignals();
    }
    if (watched[2].revents != 0) {
        folderWatch_->readEvents();
    }
    handleInstances();
    continueReplacement();
    watchRotations();
    handleTime();
    handlePeers(std::span(watched).subspan(asked));
    for (Instance* const instance : allInstances()) {
        instance->write();
    }
    log_.flush();
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
        for (Instance* const instance : allInstances()) {
            instance->reap();
        }
    } else if (number == SIGUSR2) {
        beginReplacement();
    } else if (number == SIGUSR1) {
        // Some services rotate their logs on this signal. Unhandled, it would end the controller.
        log_.say(LogLevel::warn,
                 "SIGUSR1 is ignored: SIGHUP reloads the file, SIGTERM ends the controller");
    } else {
        terminate();
    }
}

/// One of several instances that ends no longer delays the report of the others.
void Supervisor::handleInstances() {
    for (const auto& instance : instances_) {
        const bool finished = instance->finishRound() != Instance::Round::none;
        const bool forwarderEnded = instance->handleEnd();
        if (finished || (forwarderEnded && areSeveral())) {
            finishRound();
        }
    }
    if (replacement_) {
        for (Instance* const instance : {replacement_->incoming.get(), replacement_->outgoing.get(),
                                         replacement_->leftOver.get()}) {
            if (instance != nullptr) {
                instance->finishRound();
                instance->handleEnd();
            }
        }
    }
}

void Supervisor::handleTime() {
    if (due(aliveAt_)) {
        answerWatchdog();
    }
    if (due(serveAgainAt_)) {
        serveMetrics();
    }
    if (due(steerAgainAt_)) {
        checkSteering();
    }
    if (due(leaveUntil_)) {
        drain();
    }
    if (folderWatch_ && folderWatch_->dueAt() <= Clock::now()) {
        lookForChanges();
    }
    for (Instance* const instance : allInstances()) {
        instance->handleTime();
    }
}

void Supervisor::answerWatchdog() {
    notification_.alive();
    aliveAt_ = Clock::now() + *notification_.watchdogInterval() / 2;
}

// ---- The end of the controller. ----

/// Each further call ends the present step: the wait before the drain, or the drain.
void Supervisor::terminate() {
    const bool first = !std::exchange(ending_, true);
    if (first && wanted_.supervision.leave > std::chrono::seconds::zero()) {
        leave();
        return;
    }
    if (first) {
        notification_.stopping("Draining");
    } else if (leaveUntil_) {
        log_.say(LogLevel::info, "leaving: the wait is ended by a signal");
    }
    drain();
}

/// Forwards as before, so that those who send have time to see that the service is not ready.
void Supervisor::leave() {
    const std::string seconds = std::to_string(wanted_.supervision.leave.count());
    leaveUntil_ = Clock::now() + wanted_.supervision.leave;
    notification_.stopping("Leaving");
    if (metrics_) {
        metrics_->leave();
    }
    log_.say(LogLevel::info,
             "leaving: is not ready, and forwards for " + seconds + " s before the drain");
}

void Supervisor::drain() {
    if (wanted_.supervision.leave > std::chrono::seconds::zero() && !draining_) {
        notification_.status("Draining");
    }
    leaveUntil_.reset();
    const bool first = !std::exchange(draining_, true);
    bool drains = false;
    for (const auto& instance : instances_) {
        drains = instance->terminate(wanted_.supervision.drain) || drains;
    }
    if (!first && replacement_) {
        for (Instance* const old : {replacement_->outgoing.get(), replacement_->leftOver.get()}) {
            if (old != nullptr) {
                old->terminate(wanted_.supervision.drain);
            }
        }
    }
    if (drains) {
        log_.say(LogLevel::info, "draining: ends after a second without traffic, or in " +
                                     std::to_string(wanted_.supervision.drain.count()) +
                                     " s at the latest");
    }
}

bool Supervisor::ended() const {
    return !replacement_ &&
           std::ranges::all_of(instances_, [](const auto& instance) { return instance->ended(); });
}

}  // namespace vesk::controller
