#include "metrics/metrics_server.h"

#include <civetweb.h>
#include <prometheus/text_serializer.h>

#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <stdexcept>
#include <string_view>

#include "metrics/readiness.h"

namespace vesk::controller {

namespace {

// Threads inherit the signals that are blocked where they are made.
class SignalsBlocked {
 public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
    sigset_t before_{};
};

// Answers the request; what comes of the sending is the client's affair. The headers are put
// together here, since the library makes the date for its own in a buffer that its threads share.
int respond(mg_connection* connection, int status, const std::string& headers,
            const std::string& body) {
    std::string answer = "HTTP/1.1 " + std::to_string(status) + " " +
                         mg_get_response_code_text(connection, status) + "\r\n" + headers +
                         "Content-Length: " + std::to_string(body.size()) +
                         "\r\nConnection: close\r\n\r\n";
    if (mg_get_request_info(connection)->request_method != std::string_view("HEAD")) {
        answer += body;
    }
    mg_write(connection, answer.data(), answer.size());
    return status;
}

int respondWithText(mg_connection* connection, int status, const std::string& type,
                    const std::string& text) {
    const std::string_view method = mg_get_request_info(connection)->request_method;
    if (method != "GET" && method != "HEAD") {
        return respond(connection, 405, "Allow: GET, HEAD\r\n", "");
    }
    return respond(connection, status, "Content-Type: " + type + "\r\nCache-Control: no-store\r\n",
                   text);
}

int serveMetrics(mg_connection* connection, void* server) {
    return respondWithText(connection, 200, "text/plain; version=0.0.4; charset=utf-8",
                           static_cast<const MetricsServer*>(server)->page());
}

int serveHealth(mg_connection* connection, void* server) {
    const bool healthy = static_cast<const MetricsServer*>(server)->healthy();
    return respondWithText(connection, healthy ? 200 : 503, "text/plain; charset=utf-8",
                           healthy ? "ok\n" : "the forwarder is not running\n");
}

int serveReadiness(mg_connection* connection, void* server) {
    const std::string obstacle(static_cast<const MetricsServer*>(server)->obstacle());
    return respondWithText(connection, obstacle.empty() ? 200 : 503, "text/plain; charset=utf-8",
                           (obstacle.empty() ? "ready" : obstacle) + "\n");
}

int listeningPort(const mg_context* context) {
    mg_server_port listening{};
    mg_get_server_ports(context, 1, &listening);
    return listening.port;
}

std::string placeOf(const std::string& address, std::uint16_t port) {
    const bool isIpv6 = address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

// Null where it cannot listen; `problem` says why then.
mg_context* startServing(const std::string& place, std::string& problem) {
    constexpr unsigned ipv6Feature = 8;
    if (place.front() == '[' && mg_check_feature(ipv6Feature) == 0) {
        problem = "the HTTP library of this host serves IPv4 only";
        return nullptr;
    }
    // A client that connects and says nothing holds a thread no longer than a scrape may wait.
    std::array<const char*, 7> options{"listening_ports",    place.c_str(), "num_threads", "2",
                                       "request_timeout_ms", "5000",        nullptr};
    const mg_callbacks callbacks{};
    mg_init_data start{&callbacks, nullptr, options.data()};
    std::array<char, 256> text{};
    unsigned code = 0;
    mg_error_data error{&code, text.data(), text.size()};
    const SignalsBlocked blocked;
    mg_context* const context = mg_start2(&start, &error);
    problem = text.data();
    return context;
}

}  // namespace

// The thread that accepts clients finds out that it has to end when one connects, or after two
// seconds without any. Two seconds are a long outage of all flows where a service is restarted, so
// one connects.
void MetricsServer::StopServing::operator()(mg_context* context) const {
    const int port = listeningPort(context);
    const SignalsBlocked blocked;
    const std::future<void> stopped = std::async(std::launch::async, mg_stop, context);
    do {
        std::array<char, 256> problem{};
        mg_close_connection(
            mg_connect_client(address.c_str(), port, 0, problem.data(), problem.size()));
    } while (stopped.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready);
}

MetricsServer::MetricsServer(bool perFlow) : totals_(perFlow) {}

MetricsServer::MetricsServer(const std::string& address, std::uint16_t port, bool perFlow)
    : MetricsServer(perFlow) {
    serve(address, port);
}

void MetricsServer::serve(const std::string& address, std::uint16_t port) {
    const std::string place = placeOf(address, port);
    std::string problem;
    context_ = Context(startServing(place, problem), StopServing{address});
    if (!context_) {
        throw std::runtime_error("cannot serve metrics on " + place + ": " + problem);
    }
    // The pattern ends where the path has to end; without it whatever lies below is served, too.
    mg_set_request_handler(context_.get(), "/metrics$", serveMetrics, this);
    mg_set_request_handler(context_.get(), "/healthz$", serveHealth, this);
    mg_set_request_handler(context_.get(), "/ready$", serveReadiness, this);
}

std::uint16_t MetricsServer::port() const {
    return static_cast<std::uint16_t>(listeningPort(context_.get()));
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
    // What the kernel said was of the child before, or of a time that is past.
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
    // Writing the text takes its time with many flows: whoever controls the child must not wait.
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
