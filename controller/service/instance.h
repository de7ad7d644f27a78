// One instance of the forwarder: its process, which is started again when it ends, the commands to
// it, its output and its deadlines. Made by service/supervisor, whose one thread polls the
// descriptors of all instances and calls them.
#pragma once

#include <poll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child/forwarder_session.h"
#include "child/restart_pause.h"
#include "config/configuration.h"
#include "kernel/kernel_watch.h"
#include "metrics/metrics_server.h"
#include "names/lateral_watch.h"
#include "service/deadline.h"
#include "service/deployment.h"
#include "service/graceful_shutdown.h"
#include "service/instance_log.h"
#include "service/kept_forwarder.h"
#include "service/log_output.h"
#include "service/options.h"
#include "service/report_clock.h"
#include "service/rotation_traffic.h"
#include "service/service_notification.h"
#include "service/source_move.h"

namespace vesk::controller {

/// What all instances use; it must outlive them.
struct InstanceSurroundings {
    const Options& options;
    const ServiceNotification& notification;
    LogOutput& log;
    MetricsServer* metrics;  ///< null if there are none
    std::size_t instances;   ///< their number
    bool steered;            ///< their forwarders are kept with the service manager
};

/// Which of the instances it is, and for the metrics, which of their forwarders.
struct InstanceIdentity {
    std::size_t number = 0;
    ChildId child = 0;
};

/// What an instance does when its forwarder ends.
enum class InstanceRole {
    kept,     ///< it starts the forwarder again
    onTrial,  ///< it ends too: another instance is to be replaced, and is kept then
    retired,  ///< it ends too: another instance has taken its place
};

class Instance {
 public:
    using Clock = std::chrono::steady_clock;

    /// The group of commands whose outcomes are awaited: for a new forwarder, for a reload, or to
    /// try refused listeners again.
    enum class Round { none, replay, reload, listen };

    Instance(const InstanceSurroundings& surroundings, InstanceIdentity identity,
             Configuration wanted, InstanceRole role = InstanceRole::kept);

    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    /// Starts the forwarder. False, after logging, if it cannot be run.
    bool start();
    /// Starts it after a pause.
    void startLater() { pauseAfter(Clock::duration::zero()); }
    /// Takes over a running forwarder instead. What it has declared is not known, so it is to be
    /// replaced before the next reload.
    void adopt(ForwarderDescriptors running);
    bool isAdopted() const { return adopted_; }

    // One turn of the loop, in this order.

    /// The output, the input and the end of the forwarder, if they must be polled; poll(2) ignores
    /// a descriptor of -1.
    static constexpr std::size_t watchedDescriptors = 3;
    std::array<pollfd, watchedDescriptors> watched() const;
    /// When the next turn is due: at once if the round is complete, which no event may show if
    /// there was nothing to send.
    Deadline dueAt() const;
    /// Handles a piece of the output.
    void read();
    /// Finds out whether the forwarder has ended.
    void reap();
    /// Completes the round if all its outcomes have arrived, and returns it.
    Round finishRound();
    /// Handles the end of the forwarder, once its output has been read to the end. True then.
    bool handleEnd();
    void handleTime();
    void write();

    // Reload.

    /// Takes what the file says now. A downstream address on which nobody can listen is left out.
    void take(Configuration wanted);
    /// Sends what differs to the forwarder, if one runs.
    void applyReload();
    /// Takes other addresses of the lateral stream and sends them to the forwarder, if one runs.
    void follow(const std::optional<Lateral>& lateral);
    /// Whether a report since the last call suggests that a lateral peer is gone.
    bool takeSuspicion();
    /// What the reports since the last call show about labels of flows that have a `next`.
    std::optional<ObservedTraffic> takeRotationTraffic() { return rotationTraffic_.read(); }
    /// Deletes those of these flows that it has, now and for each new forwarder.
    void deleteFlows(const std::vector<std::uint32_t>& labels);
    /// Whether a downstream address has been refused, and the old one kept, since the last call.
    bool takeAddressRefusal();

    // Replacement, and the end of the controller.

    /// Ends the trial: the forwarder is started again from now on when it ends.
    void keep() { role_ = InstanceRole::kept; }
    /// Why this instance cannot take the place of `old`; empty if it can.
    std::string obstacleToReplace(const Instance& old) const;
    /// The flows to be moved one by one to the forwarder that takes its place; none if no forwarder
    /// runs.
    std::deque<SourceFlow> sourceFlows() const;
    /// The forwarder is not started again from now on when it ends: another instance has taken its
    /// place. Deletes the flows that share a source: their replies must arrive at the other one.
    void retire();
    /// Deletes the flow, if a forwarder runs.
    void release(std::uint32_t label);
    /// Whether the forwarder has carried out all commands, or none runs.
    bool answered() const { return !session_ || session_->unanswered() == 0; }
    /// Begins to end the forwarder, which drains for this time at most; a second call ends the
    /// drain. True if a drain has begun.
    bool terminate(std::chrono::seconds drain);

    /// Whether the forwarder is to be kept running.
    bool running() const { return !shutdown_.begun() && !ended_; }
    /// Whether the forwarder has ended and is not started again, and whether it ended well.
    bool ended() const { return ended_; }
    bool endedWell() const { return endedWell_; }

    bool hasForwarder() const { return session_.has_value(); }
    /// Whether no outcome of a command is awaited.
    bool settled() const { return round_ == Round::none || !session_; }
    /// Whether its forwarder has all its flows and listens.
    bool serves() const {
        return session_ && round_ == Round::none && deployment_.listensEverywhere();
    }
    const InstanceIdentity& identity() const { return identity_; }
    const Configuration& wanted() const { return wanted_; }
    const Deployment& deployment() const { return deployment_; }

    /// "3 flows, 1 refused, not listening".
    std::string summary() const;
    /// ", not listening", or empty.
    std::string listenerTroubles() const;

 private:
    // Start and end of the forwarder.
    void startAgain();
    RestartPause firstPause() const;
    void pauseAfter(Clock::duration lived);
    void forwarderEnded();
    KeptPlace keptPlace() const { return {identity_.number, wanted_.downstream.port}; }
    void tellStatus(std::string_view status) const;

    // Detection of a forwarder that hangs.
    Deadline answerDue() const;
    void watchForwarder();
    void endHungForwarder();

    // Output of the forwarder.
    void handle(const OutputEvent& event);
    void count(const LogLine& line);
    void republish(const LogLine& line);
    void handleOutcome(const Outcome& outcome);
    void handleReport(const Report& report);
    void askForReport();
    void askTheKernel();
    bool roundComplete() const;

    void sendAll(const std::vector<Command>& commands);

    // Listeners that were refused.
    void noteListener(const Outcome& outcome);
    void planListening();
    void listenAgain();

    // A reload that changes the downstream address.
    void tryNewAddress();
    bool usesItself(const HostPort& address) const;
    void keepAddress(const HostPort& old, std::string_view reason);
    void noteStart(const Outcome& outcome);

    bool isOneOfSeveral() const { return surroundings_.instances > 1; }

    // Metrics.
    void publishFlows();
    void publishListening();
    void publishStage(Stage stage);

    void carryOut(const GracefulShutdown::Step& step);

    const InstanceSurroundings& surroundings_;
    MetricsServer* const metrics_;
    const InstanceIdentity identity_;
    InstanceRole role_;
    InstanceLog log_;
    Configuration wanted_;
    KernelWatch kernelWatch_;
    FlowDescriptors flowDescriptors_;
    RestartPause restartPause_;
    RestartPause listenPause_;

    // While running() there may be no session: a forwarder has ended, and the next starts after a
    // pause.
    GracefulShutdown shutdown_;
    bool ended_ = false;
    bool endedWell_ = true;
    Round round_ = Round::none;
    Deployment deployment_;
    std::optional<ForwarderSession> session_;
    std::optional<KeptForwarder> kept_;
    std::optional<int> endStatus_;  // of a forwarder whose output has not been read to its end
    ReportClock reportClock_;
    RotationTraffic rotationTraffic_;
    LateralWatch lateralWatch_;
    bool peerSuspected_ = false;
    bool adopted_ = false;
    bool hung_ = false;  // the forwarder did not answer and was killed
    bool addressRefused_ = false;
    Deadline startAgainAt_;
    Deadline listenAgainAt_;
};

}  // namespace vesk::controller
