#include "metrics/http_server.h"

#include <microhttpd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "metrics/listening_socket.h"

namespace vesk::controller {

/// The state shared by the server's threads.
struct ServedPages {
    explicit ServedPages(HttpServer::Pages served) : pages(std::move(served)) {}

    const HttpServer::Pages pages;
    std::atomic<unsigned> longAnswers{0};  ///< being sent at present
};

namespace {

// A thread inherits the signal mask of the thread that starts it.
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

// Counts a long answer until it has been sent or its connection ended.
class CountedAnswer {
 public:
    explicit CountedAnswer(std::atomic<unsigned>& count)
        : count_(count), others_(count.fetch_add(1)) {}
    ~CountedAnswer() { count_.fetch_sub(1); }
    CountedAnswer(const CountedAnswer&) = delete;
    CountedAnswer& operator=(const CountedAnswer&) = delete;

    bool isTooMany() const { return others_ >= HttpServer::mostLongAnswers; }

 private:
    std::atomic<unsigned>& count_;
    unsigned others_;
};

// Exists until the library has sent it.
struct TextBeingSent {
    std::string text;
    std::unique_ptr<CountedAnswer> counted;  // null for a short answer
};

void endText(void* text) {
    const std::unique_ptr<TextBeingSent> ended(static_cast<TextBeingSent*>(text));
}

struct ReleaseResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, ReleaseResponse>;

Answer answerTo(const ServedPages& served, std::string_view path, std::string_view method) {
    const auto page = served.pages.find(path);
    if (page == served.pages.end()) {
        return {MHD_HTTP_NOT_FOUND, plainText, "not found\n"};
    }
    if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD) {
        return {MHD_HTTP_METHOD_NOT_ALLOWED, plainText, ""};
    }
    return page->second();
}

// The answer's text. Replaces the answer if too many long ones are being sent.
std::unique_ptr<TextBeingSent> textOf(ServedPages& served, Answer& answer) {
    auto sent = std::make_unique<TextBeingSent>();
    if (answer.text.size() > HttpServer::longAnswer) {
        sent->counted = std::make_unique<CountedAnswer>(served.longAnswers);
        if (sent->counted->isTooMany()) {
            sent->counted.reset();
            answer = {MHD_HTTP_SERVICE_UNAVAILABLE, plainText,
                      "too many clients are being sent this page\n"};
        }
    }
    sent->text = std::move(answer.text);
    return sent;
}

Response responseWith(std::unique_ptr<TextBeingSent> sent) {
    TextBeingSent* const body = sent.get();
    Response response(MHD_create_response_from_buffer_with_free_callback_cls(
        body->text.size(), body->text.data(), endText, body));
    if (response) {
        // The library owns it now, and calls endText.
        static_cast<void>(sent.release());
    }
    return response;
}

MHD_Result respond(ServedPages& served, MHD_Connection* connection, std::string_view path,
                   std::string_view method) {
    Answer answer = answerTo(served, path, method);
    const Response response = responseWith(textOf(served, answer));
    if (!response) {
        return MHD_NO;
    }
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    if (answer.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    } else {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, answer.contentType);
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    }
    return MHD_queue_response(connection, answer.status, response.get());
}

// Called when the headers of a request are complete. Because it answers at once, the body is not
// read. An exception, for lack of memory, must not pass through the library: the connection ends
// instead.
MHD_Result handleRequest(void* served, MHD_Connection* connection, const char* path,
                         const char* method, const char* /*version*/, const char* /*body*/,
                         std::size_t* /*bodySize*/, void** /*context*/) noexcept {
    try {
        return respond(*static_cast<ServedPages*>(served), connection, path, method);
    } catch (const std::exception&) {
        return MHD_NO;
    }
}

MHD_Daemon* startServing(UniqueFd listening, ServedPages& served) {
    constexpr std::intptr_t threads = 2;
    // The memory for the headers of a request and of its answer.
    constexpr std::intptr_t headerBytes = 16384;
    std::array<MHD_OptionItem, 7> options{{
        {MHD_OPTION_LISTEN_SOCKET, listening.get(), nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, threads, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, HttpServer::mostConnections, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, HttpServer::mostConnectionsOfOneAddress, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, HttpServer::idleSeconds, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, headerBytes, nullptr},
        {MHD_OPTION_END, 0, nullptr},
    }};
    const SignalsBlocked blocked;
    // The library closes the socket when it stops, or if it cannot start.
    static_cast<void>(listening.release());
    return MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, nullptr, nullptr,
                            handleRequest, &served, MHD_OPTION_ARRAY, options.data(),
                            MHD_OPTION_END);
}

}  // namespace

void HttpServer::StopServing::operator()(MHD_Daemon* daemon) const {
    MHD_stop_daemon(daemon);
}

HttpServer::HttpServer(UniqueFd listening, Pages pages)
    : port_(portOf(listening)),
      served_(std::make_unique<ServedPages>(std::move(pages))),
      daemon_(startServing(std::move(listening), *served_)) {
    if (!daemon_) {
        throw std::runtime_error("the HTTP server cannot start");
    }
}

HttpServer::~HttpServer() = default;

}  // namespace vesk::controller
