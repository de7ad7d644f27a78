// The controller at work: one thread, one poll(2), and whatever a signal, the forwarder or the
// clock asks for. Called by main.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "child/forwarder_session.h"
#include "child/restart_pause.h"
#include "config/configuration.h"
#include "config/problem.h"
#include "kernel/kernel_watch.h"
#include "metrics/metrics_server.h"
#include "service/deployment.h"
#include "service/forwarder_ending.h"
#include "service/log_output.h"
#include "service/options.h"
#include "service/report_clock.h"
#include "service/service_notification.h"
#include "service/signal_source.h"

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

    /// Commands whose last outcome is awaited: those of a new forwarder, of a reload, or those that
    /// try refused listeners again.
    enum class Round { none, replay, reload, listen };

    // The turn of the loop.
    int pollTimeout() const;
    void waitAndHandle();
    void readForwarder();
    static bool due(Deadline& deadline);
    void handleSignals();
    void handleSignal(int number);
    void handleTime();

    // The forwarder's life.
    bool startForwarder();
    void startAgain();
    RestartPause firstPause() const;
    void pauseAfter(Clock::duration lived);
    void forwarderEnded();

    // Whether it answers.
    Deadline answerDue() const;
    void watchForwarder();
    void endHungForwarder();
    void answerWatchdog();

    // What it says.
    void handle(const OutputEvent& event);
    void count(const LogLine& line);
    void republish(const LogLine& line);
    void handleOutcome(const Outcome& outcome);
    void handleReport(const Report& report);
    void askForReport();
    void askTheKernel();

    // What it is told.
    void sendAll(const std::vector<Command>& commands);
    void reload();
    void refuseReload(const Problems& problems);
    void applyReload();

    // Whether the service is ready, and what is done until it is.
    void finishRound();
    void tellReloaded(std::string_view status);
    void noteListener(const Outcome& outcome);
    void planListening();
    void listenAgain();
    std::string summary() const;

    // A reload's new address, and what comes of it.
    void tryNewAddress();
    bool usesItself(const HostPort& address) const;
    void keepAddress(const HostPort& old, std::string_view reason);
    void noteStart(const Outcome& outcome);

    // What others can read of it.
    bool beginMetrics();
    void serveMetrics();
    void reloadMetrics();
    void publishFlows();
    void publishListening();
    void publishStage(Stage stage);
    void countReload();

    // Its end.
    bool running() const { return !ending_.begun() && !ended_; }
    void terminate();
    void carryOut(const ForwarderEnding::Step& step);

    const Options& options_;
    Configuration wanted_;
    LogOutput& log_;
    SignalSource signals_;
    ServiceNotification notification_ = ServiceNotification::fromEnvironment();
    MetricsSettings servedMetrics_;
    std::unique_ptr<MetricsServer> metrics_;
    // After what its thread publishes to.
    KernelWatch kernelWatch_;
    FlowDescriptors flowDescriptors_;
    RestartPause restartPause_;
    RestartPause listenPause_;
    RestartPause servePause_;

    // While running there may be no forwarder: one has ended, and the next starts after a pause.
    ForwarderEnding ending_;
    bool ended_ = false;
    Round round_ = Round::none;
    Deployment deployment_;
    std::optional<ForwarderSession> session_;
    std::optional<int> endStatus_;  // of a forwarder whose output may still hold something
    bool ready_ = false;            // a forwarder has listened, and the service manager knows
    bool reloadTold_ = false;       // the service manager waits for the end of a reload
    std::optional<ReloadOutcome> reload_;      // of the last reload, until it is counted
    std::optional<HostPort> previousAddress_;  // to go back to if the new one is refused
    ReportClock reportClock_;
    bool hung_ = false;  // the forwarder did not answer and was killed
    Deadline startAgainAt_;
    Deadline listenAgainAt_;
    Deadline serveAgainAt_;
    Deadline aliveAt_;
    int exitStatus_ = exit_status::success;
};

}  // namespace vesk::controller
