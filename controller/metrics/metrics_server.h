// Serves the metrics, health and readiness pages over HTTP. service/supervisor makes one, passes it
// each report and tells it what happens to the child.
//
//     /metrics   everything that docs/metrics.md lists, in Prometheus' text format
//     /healthz   200 "ok" while the child is up, 503 otherwise
//     /ready     200 "ready" while it can take traffic, 503 and the reason otherwise
//
// HttpServer's two threads answer requests with the present figures. They copy the figures under
// the lock and write the text without it, so that the thread that controls the child does not wait
// for a long page. serve(), serving() and port() must be called from one thread; the other
// functions may be called from any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/sync.h"
#include "metrics/exposition.h"
#include "metrics/http_server.h"
#include "metrics/instance_figures.h"
#include "metrics/report.h"

namespace vesk::controller {

class MetricsServer {
 public:
    /// The default address: the figures are visible on this host only.
    static constexpr const char* defaultAddress = "127.0.0.1";
    static constexpr std::uint16_t defaultPort = 9477;

    /// Keeps the figures, but does not serve yet. `perFlow`: also publish each flow's counters,
    /// eight series for each flow.
    explicit MetricsServer(bool perFlow);

    /// The same, and serves at once.
    explicit MetricsServer(const std::string& address = defaultAddress,
                           std::uint16_t port = defaultPort, bool perFlow = false);

    /// Listens and serves until it is destroyed; to be called once. The address is numeric, IPv4 or
    /// IPv6, and "::" serves both; with port 0 the kernel chooses. Throws std::runtime_error if it
    /// cannot listen; then it may be called again.
    void serve(const std::string& address, std::uint16_t port);
    bool serving() const { return http_ != nullptr; }

    /// The port on which it listens.
    std::uint16_t port() const;

    /// Whether each flow's counters are published.
    bool perFlow() const { return perFlow_; }

    /// Keeps the figures of a further child. The instances, numbered from 0, are shown apart once
    /// there are several.
    ChildId addChild(std::size_t instance);
    /// The instance's state is that of this child from now on.
    void makeCurrent(ChildId child);
    /// The counts of the child stay with its instance.
    void removeChild(ChildId child);

    /// Takes a report of the child. `flowNames`: the names of the declared flows by label.
    void update(const Report& report, const std::map<std::uint32_t, std::string>& flowNames,
                ChildId child = 0);

    /// The child has been started, or has ended. The counters of a new child begin at 0, so the
    /// last reports of the previous one must be passed to update() before.
    void childUp(bool up, ChildId child = 0);

    /// Counts a child that replaces one that ended unexpectedly.
    void countRestart(ChildId child = 0);

    /// `declared`: flows in the configuration. `active`: those that the running child has
    /// accepted.
    void setFlows(std::size_t declared, std::size_t active, ChildId child = 0);
    /// Those of the flows that another instance has, too: by label, whether this child accepted it.
    void setSharedFlows(std::map<std::uint32_t, bool> flows, ChildId child = 0);

    /// Takes the kernel's figures for the child and the host.
    void setKernelFigures(const KernelFigures& figures, ChildId child = 0);

    /// Counts an event that was found in the child's log.
    void count(LogEvent event, ChildId child = 0);
    /// Counts a reload that has ended.
    void countReload(ReloadOutcome outcome);
    /// Whether each fragment of the configuration has an error, by file name.
    void setFragmentErrors(const std::map<std::string, bool>& errors);
    /// Whether the packet filter steers datagrams to the instances, and what it has counted.
    void setSteering(const SteeringState& steering);
    /// The flows that have a `next`.
    void setRotations(std::vector<RotationFigures> rotations);
    /// Counts a replacement that has ended.
    void countReplacement(ReplacementOutcome outcome);

    /// Whether the child listens for peers, and for other instances; `lateral` is none if no
    /// lateral stream is configured.
    void setListening(bool downstream, std::optional<bool> lateral, ChildId child = 0);

    /// The stage that the child has reached.
    void setStage(Stage stage, ChildId child = 0);

    /// Whether the name of each lateral peer is resolved, by index; empty if the file has no names.
    void setPeers(std::map<std::uint32_t, bool> resolved);

    /// Whether the service is unready while a flow of the file is refused.
    void setStrict(bool strict);
    /// The service is unready from now on, whatever the children do.
    void leave();

    /// The present text of the metrics page.
    std::string page() const;
    /// Whether the health page answers 200.
    bool healthy() const;
    /// The reason on the ready page; empty if the service is ready.
    std::string obstacle() const;

 private:
    HttpServer::Pages pages() const;
    std::vector<prometheus::MetricFamily> metrics() const;

    const bool perFlow_;
    mutable Mutex mutex_;
    Children children_ VESK_GUARDED_BY(mutex_);
    ControllerState state_ VESK_GUARDED_BY(mutex_);  // without that of the children
    // Last, so that its threads end before the members that they read are destroyed.
    std::unique_ptr<HttpServer> http_;
};

}  // namespace vesk::controller
