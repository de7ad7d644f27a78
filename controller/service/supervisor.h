// The controller's main loop: one thread with one poll(2), which handles signals, the output of the
// forwarder's instances and deadlines. Called by main.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "child/restart_pause.h"
#include "config/configuration.h"
#include "config/fragments/folder_watch.h"
#include "config/fragments/fragment_folder.h"
#include "config/problem.h"
#include "metrics/metrics_server.h"
#include "names/peer_lookup.h"
#include "service/adoption.h"
#include "service/deadline.h"
#include "service/instance.h"
#include "service/log_output.h"
#include "service/options.h"
#include "service/passed_descriptors.h"
#include "service/rotations.h"
#include "service/service_notification.h"
#include "service/signal_source.h"
#include "service/source_move.h"
#include "service/steering.h"

namespace vesk::controller {

/// A replacement of all instances, one after the other.
struct Replacement {
    std::unique_ptr<Instance> leftOver;  ///< of a killed controller; must have ended before
    bool onlyAdopted = false;
    std::size_t next = 0;                ///< the instance to be replaced
    std::size_t done = 0;                ///< the number of those that have been replaced
    std::unique_ptr<Instance> incoming;  ///< the new one, until it takes over
    std::unique_ptr<Instance> outgoing;  ///< the old one after that, until it has ended
    std::optional<SourceMove> sources;   ///< before the old one drains
    Deadline giveUpAt;
};

class Supervisor {
 public:
    /// `options` and `log` must outlive it. Blocks the signals that it waits for.
    Supervisor(const Options& options, Configuration configuration, LogOutput& log);

    /// Applies the changes of this folder, from which the configuration was read, while it runs.
    void watchFragments(FragmentFolder fragments);

    /// Runs until the forwarder has ended and is not started again; returns the exit status.
    int run();

 private:
    using Clock = Instance::Clock;

    // One turn of the loop.
    int pollTimeout() const;
    void waitAndHandle();
    void handleSignals();
    void handleSignal(int number);
    void handleInstances();
    void handleTime();
    void answerWatchdog();

    // The instances.
    bool begin();
    std::unique_ptr<Instance> makeInstance(std::size_t number, Configuration part,
                                           InstanceRole role);
    /// Also those of a replacement.
    std::vector<Instance*> allInstances() const;
    bool areSeveral() const { return instances_.size() > 1; }
    void steer();
    void checkSteering();
    void removeLeftRules();

    // Forwarders of an earlier controller.
    Adoption findForwarders();
    bool startOrAdopt(Adoption adoption);
    void tidyUp(RunningForwarder leftOver);
    std::size_t adopted() const;
    void replaceAdopted();

    // Reload.
    void reload();
    void tellReloading();
    void readFile();
    void refuseReload();
    void applyReload(Configuration configuration, ReloadOutcome outcome);
    void shareOut(const Configuration& configuration);

    // Flows that change their label.
    void takeRotations(Configuration& configuration);
    void watchRotations();
    void observeRotations(const Instance& instance, const ObservedTraffic& traffic);
    void deleteSilentLabels();
    void publishRotations();

    // A folder of fragments.
    void lookForChanges();
    void applyFragments(FolderReading reading);
    void publishFragments();

    // Replacement.
    void beginReplacement();
    void continueReplacement();
    void replaceNext();
    bool startIncoming();
    void judgeIncoming();
    void takeOver();
    SourceMoveActions sourceMoveActions();
    void moveSources();
    void endSourceMove();
    void drainOutgoing();
    void dropOutgoing();
    void drop(std::unique_ptr<Instance>& instance);
    std::chrono::seconds drainOfReplaced() const;
    void failReplacement(const std::string& reason);
    void endReplacement(ReplacementOutcome outcome);
    std::vector<std::uint16_t> portsWithSpare() const;
    std::string nameOf(std::size_t instance) const;

    // Lateral peers with names.
    void handlePeers(std::span<const pollfd> watched);
    void publishPeers();
    void followPeers();

    // Readiness of the service.
    void finishRound();
    void sayRound();
    void tellReloaded(std::string_view status);
    std::string summary() const;

    // Metrics.
    bool beginMetrics();
    void serveMetrics();
    void reloadMetrics();
    void countReload();
    void publishSteering(const SteeringCounters& counters);

    // The end of the controller.
    bool running() const { return !ending_; }
    void terminate();
    void leave();
    void drain();
    bool ended() const;

    const Options& options_;
    Configuration wanted_;  // without the flows, which the instances have
    LogOutput& log_;
    std::vector<PassedDescriptor> passed_ = takePassedDescriptors();
    SignalSource signals_;
    ServiceNotification notification_ = ServiceNotification::fromEnvironment();
    MetricsSettings servedMetrics_;
    std::unique_ptr<MetricsServer> metrics_;
    std::optional<InstanceSurroundings> surroundings_;
    RestartPause servePause_;
    RestartPause steerPause_;

    // If the file is a folder.
    std::optional<FragmentFolder> fragments_;
    std::optional<FolderWatch> folderWatch_;

    Rotations rotations_;
    PeerLookup peers_;
    Steering steering_;
    std::vector<std::uint16_t> ports_;  // of the instances
    // Declared after what they use.
    std::vector<std::unique_ptr<Instance>> instances_;
    std::optional<Replacement> replacement_;

    bool rulesFit_ = false;  // those that an earlier controller has left
    bool ending_ = false;
    bool ready_ = false;        // the service manager has been told that the service is ready
    bool reloadTold_ = false;   // the service manager has been told of a reload, but not of its end
    bool reloadWaits_ = false;  // until the replacement has ended
    std::optional<ReloadOutcome> reload_;  // of the last reload, until it is counted
    /// Of several instances: what all of them do at present.
    Instance::Round commonRound_ = Instance::Round::none;
    Deadline leaveUntil_;  // the drain begins then
    bool draining_ = false;
    Deadline serveAgainAt_;
    Deadline steerAgainAt_;
    Deadline aliveAt_;
};

}  // namespace vesk::controller
