// The controller's main loop: one thread with one poll(2), which handles signals, the output of the
// forwarder's instances and deadlines. Called by main.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child/restart_pause.h"
#include "config/configuration.h"
#include "config/problem.h"
#include "metrics/metrics_server.h"
#include "service/instance.h"
#include "service/log_output.h"
#include "service/options.h"
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
    using Clock = Instance::Clock;
    using Deadline = Instance::Deadline;

    // One turn of the loop.
    bool begin();
    int pollTimeout() const;
    void waitAndHandle();
    static bool due(Deadline& deadline);
    void handleSignals();
    void handleSignal(int number);
    void handleInstances();
    void handleTime();
    void answerWatchdog();

    // Reload.
    void reload();
    void refuseReload(const Problems& problems);
    void applyReload(Configuration configuration);

    // Readiness of the service.
    void finishRound();
    void tellReloaded(std::string_view status);
    std::string summary() const;

    // Metrics.
    bool beginMetrics();
    void serveMetrics();
    void reloadMetrics(const MetricsSettings& wanted);
    void countReload();

    // The end of the controller.
    bool running() const { return !ending_; }
    void terminate();
    bool ended() const;

    const Options& options_;
    Configuration wanted_;
    LogOutput& log_;
    SignalSource signals_;
    ServiceNotification notification_ = ServiceNotification::fromEnvironment();
    MetricsSettings servedMetrics_;
    std::unique_ptr<MetricsServer> metrics_;
    std::optional<InstanceSurroundings> surroundings_;
    RestartPause servePause_;
    // Declared after what they use.
    std::vector<std::unique_ptr<Instance>> instances_;

    bool ending_ = false;
    bool ready_ = false;       // the service manager has been told that the service is ready
    bool reloadTold_ = false;  // the service manager has been told of a reload, but not of its end
    std::optional<ReloadOutcome> reload_;  // of the last reload, until it is counted
    Deadline serveAgainAt_;
    Deadline aliveAt_;
};

}  // namespace vesk::controller
