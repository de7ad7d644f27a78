// The controller at work: one thread, one poll(2), and whatever a signal, the forwarder or the
// clock asks for. Called by main.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "child/forwarder_session.h"
#include "child/restart_pause.h"
#include "config/configuration.h"
#include "config/problem.h"
#include "metrics/metrics_server.h"
#include "options.h"
#include "service/deployment.h"
#include "service/log_output.h"
#include "service/service_notification.h"
#include "service/signal_source.h"
#include "service/standstill.h"

namespace vesk::controller {

class Supervisor {
 public:
    /// `options` and `log` have to outlive it. Blocks the signals that it waits for.
    Supervisor(const Options& options, Configuration configuration, LogOutput& log);

    /// From the forwarder's start to its last end; returns the exit status.
    int run();

 private:
    using Clock = std::chrono::steady_clock;
    using Deadline = std::optional<Clock::time_point>;

    /// In the order in which they are gone through. While running there may be no forwarder: one
    /// has ended, and the next starts after a pause.
    enum class Phase { running, draining, closing, terminating, killing, ended };

    /// Commands whose last outcome is awaited: those of a new forwarder, or of a reload.
    enum class Round { none, replay, reload };

    // The turn of the loop.
    int pollTimeout() const;
    void waitAndHandle();
    void handleSignals();
    void handleSignal(int number);
    void handleTime();

    // The forwarder's life.
    bool startForwarder();
    void startAgain();
    void pauseAfter(Clock::duration lived);
    void forwarderEnded();

    // What it says.
    void handle(const OutputEvent& event);
    void republish(const LogLine& line);
    void handleOutcome(const Outcome& outcome);
    void handleReport(const Report& report);
    void finishRound();
    void askForReport();

    // What it is told.
    void sendAll(const std::vector<Command>& commands);
    void reload();
    void refuseReload(const Problems& problems);
    void applyReload();
    void tellReloaded(std::string_view status);

    // Its end.
    void terminate();
    void nextStepOfEnd();
    void closeInput();

    std::string summary() const;
    void serveMetrics();
    void publishFlows();

    const Options& options_;
    Configuration wanted_;
    LogOutput& log_;
    SignalSource signals_;
    ServiceNotification notification_ = ServiceNotification::fromEnvironment();
    MetricsSettings servedMetrics_;
    std::unique_ptr<MetricsServer> metrics_;
    RestartPause restartPause_;

    Phase phase_ = Phase::running;
    Round round_ = Round::none;
    Deployment deployment_;
    std::optional<ForwarderSession> session_;
    std::optional<int> endStatus_;  // of a forwarder whose output may still hold something
    bool ready_ = false;            // a forwarder has been set up, and the service manager knows
    bool reportAsked_ = false;
    std::optional<Standstill> standstill_;
    Deadline startAgainAt_;
    Deadline reportAt_;
    Deadline stepAt_;  // when the end gets more urgent
    int exitStatus_ = exit_status::success;
};

}  // namespace vesk::controller
