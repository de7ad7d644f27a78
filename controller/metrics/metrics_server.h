// Serves the metrics page and the health page over HTTP. The controller makes one, tells it what
// happens to its child, and gives it each report.
//
//     /metrics   everything that docs/metrics.md lists, in Prometheus' text format
//     /healthz   200 "ok" while the child is up, 503 otherwise
//     /ready     200 "ready" while it can be sent traffic, 503 and the reason otherwise
//
// HttpServer's two threads answer requests. They compose the pages from the figures as these are at
// that moment: they copy them under the lock and write the text without it, so that the thread that
// controls the child does not wait for a long page. Every function may be called from any thread,
// but for serve(), serving() and port() from one only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sync.h"
#include "metrics/exposition.h"
#include "metrics/http_server.h"
#include "metrics/report.h"
#include "metrics/report_totals.h"

namespace vesk::controller {

class MetricsServer {
 public:
    /// Where it listens unless told otherwise: nobody but this host needs to see the figures.
    static constexpr const char* defaultAddress = "127.0.0.1";
    static constexpr std::uint16_t defaultPort = 9477;

    /// Keeps the figures; serves nothing yet. `perFlow`: show each flow's counters, too; eight
    /// series for each.
    explicit MetricsServer(bool perFlow);

    /// The same, and serves.
    explicit MetricsServer(const std::string& address = defaultAddress,
                           std::uint16_t port = defaultPort, bool perFlow = false);

    /// Listens and serves from here to its destruction, once. The address is numeric, IPv4 or IPv6,
    /// and "::" serves both; port 0 lets the kernel choose. Throws std::runtime_error where it
    /// cannot listen; it may be tried again then.
    void serve(const std::string& address, std::uint16_t port);
    bool serving() const { return http_ != nullptr; }

    /// Where it listens: the kernel's choice, if that was asked for.
    std::uint16_t port() const;

    /// Takes in a report of the child. `flowNames`: the declared flows' names by label.
    void update(const Report& report, const std::map<std::uint32_t, std::string>& flowNames);

    /// The child runs, or has ended. That it is up again means that it is another one, whose
    /// counters begin at 0: hand over the last reports of the one before first.
    void childUp(bool up);

    /// A child that ended unasked is replaced by a new one.
    void countRestart();

    /// `declared`: flows in the configuration. `active`: those of them that the running child has
    /// accepted; fewer, where it refused some.
    void setFlows(std::size_t declared, std::size_t active);

    /// Takes in what the kernel says of the child and of the host.
    void setKernelFigures(const KernelFigures& figures);

    /// Something that is counted was read in the child's log.
    void count(LogEvent event);
    /// A reload has ended.
    void countReload(ReloadOutcome outcome);

    /// Whether the child listens for peers; `lateral` the same for the lateral stream, none where
    /// no stream is configured.
    void setListening(bool downstream, std::optional<bool> lateral);

    /// How far the child has been told what the file says.
    void setStage(Stage stage);

    /// The text of the metrics page as it is now.
    std::string page() const;
    /// Whether the health page says so, too.
    bool healthy() const;
    /// What the ready page says is in the way; empty where it says that the service is ready.
    std::string_view obstacle() const;

 private:
    HttpServer::Pages pages() const;
    std::vector<prometheus::MetricFamily> metrics() const;

    mutable Mutex mutex_;
    ReportTotals totals_ VESK_GUARDED_BY(mutex_);
    ControllerState state_ VESK_GUARDED_BY(mutex_);
    // Last, so that its threads have ended before what they read goes.
    std::unique_ptr<HttpServer> http_;
};

}  // namespace vesk::controller
