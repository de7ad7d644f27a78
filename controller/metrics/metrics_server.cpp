#include "metrics/metrics_server.h"

#include <prometheus/text_serializer.h>

#include <chrono>
#include <stdexcept>

#include "metrics/listening_socket.h"
#include "metrics/readiness.h"

namespace vesk::controller {

namespace {

constexpr const char* metricsText = "text/plain; version=0.0.4; charset=utf-8";

Answer healthAnswer(bool healthy) {
    return healthy ? Answer{200, plainText, "ok\n"}
                   : Answer{503, plainText, "the forwarder is not running\n"};
}

Answer readinessAnswer(std::string_view obstacle) {
    return obstacle.empty() ? Answer{200, plainText, "ready\n"}
                            : Answer{503, plainText, std::string(obstacle) + "\n"};
}

std::string placeOf(const std::string& address, std::uint16_t port) {
    const bool isIpv6 = address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

}  // namespace

MetricsServer::MetricsServer(bool perFlow) : perFlow_(perFlow), totals_(perFlow) {}

MetricsServer::MetricsServer(const std::string& address, std::uint16_t port, bool perFlow)
    : MetricsServer(perFlow) {
    serve(address, port);
}

void MetricsServer::serve(const std::string& address, std::uint16_t port) {
    try {
        http_ = std::make_unique<HttpServer>(listenOn(address, port), pages());
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("cannot serve metrics on " + placeOf(address, port) + ": " +
                                 error.what());
    }
}

HttpServer::Pages MetricsServer::pages() const {
    return {
        {"/metrics",
         [this] {
             return Answer{200, metricsText, page()};
         }},
        {"/healthz", [this] { return healthAnswer(healthy()); }},
        {"/ready", [this] { return readinessAnswer(obstacle()); }},
    };
}

std::uint16_t MetricsServer::port() const {
    return http_->port();
}

void MetricsServer::update(const Report& report,
                           const std::map<std::uint32_t, std::string>& flowNames) {
    const MutexLock lock(mutex_);
    totals_.add(report, flowNames);
    state_.lastReport = std::chrono::system_clock::now();
}

void MetricsServer::childUp(bool up) {
    const MutexLock lock(mutex_);
    if (up && !state_.childUp) {
        totals_.childStarted();
    }
    state_.childUp = up;
    // These figures are those of the previous child, or out of date.
    state_.kernel.sockets.reset();
    state_.kernel.flows.reset();
    state_.kernel.descriptors.reset();
    state_.kernel.ports.reset();
    state_.kernel.conntrack.reset();
}

void MetricsServer::countRestart() {
    const MutexLock lock(mutex_);
    ++state_.restarts;
}

void MetricsServer::setFlows(std::size_t declared, std::size_t active) {
    const MutexLock lock(mutex_);
    state_.flowsDeclared = declared;
    state_.flowsActive = active;
}

void MetricsServer::setKernelFigures(const KernelFigures& figures) {
    const MutexLock lock(mutex_);
    state_.kernel = figures;
    if (figures.flows) {
        totals_.addFlowSockets(*figures.flows);
    }
}

void MetricsServer::count(LogEvent event) {
    const MutexLock lock(mutex_);
    ++state_.events.at(placeOf(event));
}

void MetricsServer::countReload(ReloadOutcome outcome) {
    const MutexLock lock(mutex_);
    ++state_.reloads[static_cast<std::size_t>(outcome)];
    state_.lastReloadSuccessful = outcome == ReloadOutcome::done;
}

void MetricsServer::setListening(bool downstream, std::optional<bool> lateral) {
    const MutexLock lock(mutex_);
    state_.listening = downstream;
    state_.lateralListening = lateral;
}

std::string MetricsServer::page() const {
    // Without the lock: writing the text of many flows takes time, and the thread that controls the
    // child must not wait for it.
    return prometheus::TextSerializer().Serialize(metrics());
}

std::vector<prometheus::MetricFamily> MetricsServer::metrics() const {
    const MutexLock lock(mutex_);
    return describeMetrics(totals_.totals(), state_);
}

void MetricsServer::setStage(Stage stage) {
    const MutexLock lock(mutex_);
    state_.stage = stage;
}

std::string_view MetricsServer::obstacle() const {
    const MutexLock lock(mutex_);
    return notReadyBecause(state_);
}

bool MetricsServer::healthy() const {
    const MutexLock lock(mutex_);
    return state_.childUp;
}

}  // namespace vesk::controller
