#include "metrics/metrics_server.h"

#include <prometheus/text_serializer.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "config/key_mask.h"
#include "metrics/instance_exposition.h"
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

MetricsServer::MetricsServer(bool perFlow) : perFlow_(perFlow), children_(perFlow) {}

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

ChildId MetricsServer::addChild(std::size_t instance) {
    const MutexLock lock(mutex_);
    return children_.add(instance);
}

void MetricsServer::makeCurrent(ChildId child) {
    const MutexLock lock(mutex_);
    children_.makeCurrent(child);
}

void MetricsServer::removeChild(ChildId child) {
    const MutexLock lock(mutex_);
    children_.remove(child);
}

void MetricsServer::update(const Report& report,
                           const std::map<std::uint32_t, std::string>& flowNames, ChildId child) {
    const MutexLock lock(mutex_);
    children_.totals(child).add(report, flowNames);
    children_.state(child).lastReport = std::chrono::system_clock::now();
}

void MetricsServer::childUp(bool up, ChildId child) {
    const MutexLock lock(mutex_);
    ChildState& state = children_.state(child);
    if (up && !state.childUp) {
        children_.totals(child).childStarted();
    }
    state.childUp = up;
    // These figures are those of the previous child, or out of date.
    state.kernel.sockets.reset();
    state.kernel.flows.reset();
    state.kernel.descriptors.reset();
    state.kernel.ports.reset();
    state.kernel.conntrack.reset();
}

void MetricsServer::countRestart(ChildId child) {
    const MutexLock lock(mutex_);
    ++children_.state(child).restarts;
}

void MetricsServer::setFlows(std::size_t declared, std::size_t active, ChildId child) {
    const MutexLock lock(mutex_);
    ChildState& state = children_.state(child);
    state.flowsDeclared = declared;
    state.flowsActive = active;
}

void MetricsServer::setSharedFlows(std::map<std::uint32_t, bool> flows, ChildId child) {
    const MutexLock lock(mutex_);
    children_.state(child).sharedFlows = std::move(flows);
}

void MetricsServer::setKernelFigures(const KernelFigures& figures, ChildId child) {
    const MutexLock lock(mutex_);
    children_.state(child).kernel = figures;
    if (figures.flows) {
        children_.totals(child).addFlowSockets(*figures.flows);
        // Kept with the flows; here it matters only that they are known.
        children_.state(child).kernel.flows->clear();
    }
}

void MetricsServer::count(LogEvent event, ChildId child) {
    const MutexLock lock(mutex_);
    ++children_.state(child).events.at(placeOf(event));
}

void MetricsServer::countReload(ReloadOutcome outcome) {
    const MutexLock lock(mutex_);
    ++state_.reloads[static_cast<std::size_t>(outcome)];
    state_.lastReloadSuccessful = outcome == ReloadOutcome::done;
}

void MetricsServer::setFragmentErrors(const std::map<std::string, bool>& errors) {
    const MutexLock lock(mutex_);
    state_.fragmentErrors.clear();
    for (const auto& [file, hasError] : errors) {
        // Masked names may be equal.
        bool& shown = state_.fragmentErrors[maskKeyDigits(file)];
        shown = shown || hasError;
    }
}

void MetricsServer::setSteering(const SteeringState& steering) {
    const MutexLock lock(mutex_);
    state_.steering = steering;
}

void MetricsServer::setRotations(std::vector<RotationFigures> rotations) {
    const MutexLock lock(mutex_);
    state_.rotations = std::move(rotations);
}

void MetricsServer::countReplacement(ReplacementOutcome outcome) {
    const MutexLock lock(mutex_);
    ++state_.replacements[static_cast<std::size_t>(outcome)];
}

void MetricsServer::setListening(bool downstream, std::optional<bool> lateral, ChildId child) {
    const MutexLock lock(mutex_);
    children_.state(child).listening = downstream;
    children_.state(child).lateralListening = lateral;
}

std::string MetricsServer::page() const {
    // Without the lock: writing the text of many flows takes time, and the thread that controls the
    // child must not wait for it.
    return prometheus::TextSerializer().Serialize(metrics());
}

std::vector<prometheus::MetricFamily> MetricsServer::metrics() const {
    const MutexLock lock(mutex_);
    ControllerState state = state_;
    if (const ReportTotals* const only = children_.onlyTotals()) {
        static_cast<ChildState&>(state) = children_.states().front();
        return describeMetrics(only->totals(), state);
    }
    const std::vector<InstanceFigures> instances = children_.instances();
    InstanceFigures sum = sumOf(instances);
    static_cast<ChildState&>(state) = std::move(sum.state);
    Families families = describeMetrics(sum.totals, state);
    if (instances.size() > 1) {
        addInstances(families, instances);
    }
    return families;
}

void MetricsServer::setStage(Stage stage, ChildId child) {
    const MutexLock lock(mutex_);
    children_.state(child).stage = stage;
}

void MetricsServer::setPeers(std::map<std::uint32_t, bool> resolved) {
    const MutexLock lock(mutex_);
    state_.peers = std::move(resolved);
}

void MetricsServer::setStrict(bool strict) {
    const MutexLock lock(mutex_);
    state_.strict = strict;
}

void MetricsServer::leave() {
    const MutexLock lock(mutex_);
    state_.leaving = true;
}

std::string MetricsServer::obstacle() const {
    const MutexLock lock(mutex_);
    if (state_.leaving) {
        return "the controller is about to end";
    }
    const std::string obstacle = firstObstacle(children_.states(), state_.strict);
    const bool steered = !state_.steering || state_.steering->active;
    return obstacle.empty() && !steered ? "the public port is not steered to the instances"
                                        : obstacle;
}

bool MetricsServer::healthy() const {
    const MutexLock lock(mutex_);
    return std::ranges::all_of(children_.states(), &ChildState::childUp);
}

}  // namespace vesk::controller
