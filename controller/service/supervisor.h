// The controller's main loop: one thread with one poll(2), which handles signals, the forwarder's
// output and deadlines. Called by main.
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
#include "service/graceful_shutdown.h"
#include "service/log_output.h"
#include "service/options.h"
#include "service/report_clock.h"
#include "service/service_notification.h"
#include "service/signal_source.h"

namespace vesk::controller {

class Supervisor {
 public:
    /// `options` and `log` must outlive it. Blocks the signals that it waits for.
    Supervisor(const Options& options, Configuration configuration, LogOutput& log);

    /// Runs until the forwarder has ended and is not started again; returns the exit status.
    int run();

 private:
    using Clock = std::chrono::steady_clock;
    using Deadline = std::optional<Clock::time_point>;

    /// The group of commands whose outcomes are awaited: for a new forwarder, for a reload, or to
    /// try refused listeners again.
    enum class Round { none, replay, reload, listen };

    // One turn of the loop.
    int pollTimeout() const;
    void waitAndHandle();
    void readForwarder();
    static bool due(Deadline& deadline);
    void handleSignals();
    void handleSignal(int number);
    void handleTime();

    // Start and end of the forwarder.
    bool startForwarder();
    void startAgain();
    RestartPause firstPause() const;
    void pauseAfter(Clock::duration lived);
    void forwarderEnded();

    // Detection of a forwarder that hangs.
    Deadline answerDue() const;
    void watchForwarder();
    void endHungForwarder();
    void answerWatchdog();

    // Output of the forwarder.
    void handle(const OutputEvent& event);
    void count(const LogLine& line);
    void republish(const LogLine& line);
    void handleOutcome(const Outcome& outcome);
    void handleReport(const Report& report);
    void askForReport();
    void askTheKernel();

    // Commands to the forwarder.
    void sendAll(const std::vector<Command>& commands);
    void reload();
    void refuseReload(const Problems& problems);
    void applyReload();

    // Readiness of the service, and the listeners that were refused.
    void finishRound();
    void tellReloaded(std::string_view status);
    void noteListener(const Outcome& outcome);
    void planListening();
    void listenAgain();
    std::string summary() const;

    // A reload that changes the downstream address.
    void tryNewAddress();
    bool usesItself(const HostPort& address) const;
    void keepAddress(const HostPort& old, std::string_view reason);
    void noteStart(const Outcome& outcome);

    // Metrics.
    bool beginMetrics();
    void serveMetrics();
    void reloadMetrics();
    void publishFlows();
    void publishListening();
    void publishStage(Stage stage);
    void countReload();

    // The end of the controller.
    bool running() const { return !shutdown_.begun() && !ended_; }
    void terminate();
    void carryOut(const GracefulShutdown::Step& step);

    const Options& options_;
    Configuration wanted_;
    LogOutput& log_;
    SignalSource signals_;
    ServiceNotification notification_ = ServiceNotification::fromEnvironment();
    MetricsSettings servedMetrics_;
    std::unique_ptr<MetricsServer> metrics_;
    // Declared after metrics_, to which its thread publishes.
    KernelWatch kernelWatch_;
    FlowDescriptors flowDescriptors_;
    RestartPause restartPause_;
    RestartPause listenPause_;
    RestartPause servePause_;

    // While running() there may be no session: a forwarder has ended, and the next starts after a
    // pause.
    GracefulShutdown shutdown_;
    bool ended_ = false;
    Round round_ = Round::none;
    Deployment deployment_;
    std::optional<ForwarderSession> session_;
    std::optional<int> endStatus_;  // of a forwarder whose output has not been read to its end
    bool ready_ = false;            // the service manager has been told that the service is ready
    bool reloadTold_ = false;  // the service manager has been told of a reload, but not of its end
    std::optional<ReloadOutcome> reload_;  // of the last reload, until it is counted
    ReportClock reportClock_;
    bool hung_ = false;  // the forwarder did not answer and was killed
    Deadline startAgainAt_;
    Deadline listenAgainAt_;
    Deadline serveAgainAt_;
    Deadline aliveAt_;
    int exitStatus_ = exit_status::success;
};

}  // namespace vesk::controller
