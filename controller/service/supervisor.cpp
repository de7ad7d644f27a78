#include "service/supervisor.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

namespace vesk::controller {

Supervisor::Supervisor(const Options& options, Configuration configuration, LogOutput& log)
    : options_(options),
      wanted_(std::move(configuration)),
      log_(log),
      signals_({SIGHUP, SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGUSR2}),
      servedMetrics_(wanted_.metrics),
      servePause_(wanted_.supervision.restartPause, wanted_.supervision.restartPauseMax) {
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
        std::ranges::all_of(instances_, [](const auto& it) { return it->endedWell(); });
    return well ? exit_status::success : exit_status::forwarderFailed;
}

/// Makes and starts the instances. False, after logging, if one cannot be started.
bool Supervisor::begin() {
    surroundings_.emplace(InstanceSurroundings{options_, notification_, metrics_.get()});
    instances_.push_back(
        std::make_unique<Instance>(*surroundings_, InstanceLog(log_, ""), wanted_));
    return std::ranges::all_of(instances_, [](const auto& instance) { return instance->start(); });
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
    std::vector<Deadline> deadlines{aliveAt_, serveAgainAt_, log_.countDueAt()};
    for (const auto& instance : instances_) {
        deadlines.push_back(instance->dueAt());
    }
    Deadline nearest;
    for (const Deadline& deadline : deadlines) {
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
    std::vector<pollfd> watched{{signals_.descriptor(), POLLIN, 0},
                                {log_.pending() ? log_.descriptor() : -1, POLLOUT, 0}};
    const std::size_t first = watched.size();
    for (const auto& instance : instances_) {
        std::ranges::copy(instance->watched(), std::back_inserter(watched));
    }
    if (poll(watched.data(), watched.size(), pollTimeout()) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    for (std::size_t i = 0; i < instances_.size(); ++i) {
        if (watched[first + 2 * i].revents != 0) {
            instances_[i]->read();
        }
    }
    if (watched[0].revents != 0) {
        handleSignals();
    }
    handleInstances();
    handleTime();
    for (const auto& instance : instances_) {
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
        for (const auto& instance : instances_) {
            instance->reap();
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

void Supervisor::handleInstances() {
    for (const auto& instance : instances_) {
        if (instance->finishRound() != Instance::Round::none) {
            finishRound();
        }
        instance->handleEnd();
    }
}

void Supervisor::handleTime() {
    if (due(aliveAt_)) {
        answerWatchdog();
    }
    if (due(serveAgainAt_)) {
        serveMetrics();
    }
    for (const auto& instance : instances_) {
        instance->handleTime();
    }
}

void Supervisor::answerWatchdog() {
    notification_.alive();
    aliveAt_ = Clock::now() + *notification_.watchdogInterval() / 2;
}

// ---- The end of the controller. ----

void Supervisor::terminate() {
    if (!std::exchange(ending_, true)) {
        notification_.stopping("Draining");
    }
    bool drains = false;
    for (const auto& instance : instances_) {
        drains = instance->terminate() || drains;
    }
    if (drains) {
        log_.say(LogLevel::info, "draining: ends after a second without traffic, or in " +
                                     std::to_string(wanted_.supervision.drain.count()) +
                                     " s at the latest");
    }
}

bool Supervisor::ended() const {
    return std::ranges::all_of(instances_, [](const auto& instance) { return instance->ended(); });
}

}  // namespace vesk::controller
