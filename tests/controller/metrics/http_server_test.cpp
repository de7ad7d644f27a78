#include "metrics/http_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <future>
#include <iterator>
#include <new>
#include <optional>
#include <stdexcept>
#include <vector>

#include "http_request.h"
#include "metrics/listening_socket.h"

namespace vesk::controller {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Clock = std::chrono::steady_clock;

// More than the kernel buffers for a client that does not read.
constexpr std::size_t longText = std::size_t{8} * 1024 * 1024;
constexpr const char* halfARequest = "GET /short HTTP/1.1\r\nHost: localhost\r\n";

class HttpServerTest : public testing::Test {
 protected:
    std::promise<void> composing_;
    std::promise<void> composed_;
    std::optional<HttpServer> server_{std::in_place, listenOn("127.0.0.1", 0), pages()};

    HttpServer::Pages pages() {
        return {
            {"/short",
             [] {
                 return Answer{200, "text/plain", "short\n"};
             }},
            {"/long",
             [] {
                 return Answer{200, "text/plain", std::string(longText, 'x')};
             }},
            {"/failing", []() -> Answer { throw std::bad_alloc(); }},
            {"/slow",
             [this] {
                 composing_.set_value();
                 composed_.get_future().wait();
                 return Answer{200, "text/plain", "slow\n"};
             }},
        };
    }

    UniqueFd connection() const { return connectTo("127.0.0.1", server_->port()); }

    UniqueFd connectionThatSays(std::string_view text) const {
        UniqueFd made = connection();
        EXPECT_TRUE(say(made, text));
        return made;
    }

    std::string get(const std::string& path) const { return ask("GET", path, server_->port()); }

    std::string answerTo(std::string_view request) const {
        return answerOn(connectionThatSays(request));
    }

    void expectPromptAnswer() const {
        const Clock::time_point began = Clock::now();
        EXPECT_THAT(get("/short"), EndsWith("\r\n\r\nshort\n"));
        EXPECT_LT(Clock::now() - began, std::chrono::milliseconds(500));
    }
};

TEST_F(HttpServerTest, AnswersGetAndHead) {
    EXPECT_THAT(get("/short"), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(get("/short"), HasSubstr("\r\nContent-Type: text/plain\r\n"));
    EXPECT_THAT(get("/short"), HasSubstr("\r\nContent-Length: 6\r\n"));
    EXPECT_THAT(get("/short"), HasSubstr("\r\nCache-Control: no-store\r\n"));
    EXPECT_THAT(get("/short?with=query"), EndsWith("\r\n\r\nshort\n"));
    EXPECT_THAT(ask("HEAD", "/short", server_->port()), HasSubstr("\r\nContent-Length: 6\r\n"));
    EXPECT_THAT(ask("HEAD", "/short", server_->port()), EndsWith("\r\n\r\n"));
    const std::string answer = get("/long");
    EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, longText);
}

TEST_F(HttpServerTest, ClosesTheConnectionAfterAnAnswer) {
    EXPECT_THAT(answerTo("GET /short HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                testing::AllOf(HasSubstr("\r\nConnection: close\r\n"), EndsWith("short\n")));
    EXPECT_THAT(answerTo("GET /short HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"),
                testing::AllOf(HasSubstr("\r\nConnection: close\r\n"), EndsWith("short\n")));
}

TEST_F(HttpServerTest, RefusesOtherPathsAndMethods) {
    EXPECT_THAT(get("/"), StartsWith("HTTP/1.1 404 Not Found\r\n"));
    EXPECT_THAT(get("/short/"), EndsWith("\r\n\r\nnot found\n"));
    EXPECT_THAT(ask("POST", "/nothing", server_->port()), StartsWith("HTTP/1.1 404 "));
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "CONNECT", "UNHEARD"}) {
        const std::string answer = ask(method, "/short", server_->port());
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 405 Method Not Allowed\r\n")) << method;
        EXPECT_THAT(answer, HasSubstr("\r\nAllow: GET, HEAD\r\n")) << method;
        EXPECT_THAT(answer, EndsWith("\r\n\r\n")) << method;
    }
}

// The server does not wait for a body that is announced but not sent.
TEST_F(HttpServerTest, AnswersWithoutTheBodyOfARequest) {
    const std::string rest =
        " /short HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000000000\r\n";
    const Clock::time_point began = Clock::now();
    EXPECT_THAT(answerTo("POST" + rest + "\r\nabc"), StartsWith("HTTP/1.1 405 "));
    EXPECT_THAT(answerTo("PUT" + rest + "Expect: 100-continue\r\n\r\n"),
                StartsWith("HTTP/1.1 405 "));
    EXPECT_THAT(answerTo("GET" + rest + "\r\nabc"), EndsWith("\r\n\r\nshort\n"));
    EXPECT_THAT(answerTo("POST /short HTTP/1.1\r\nHost: localhost\r\n"
                         "Transfer-Encoding: chunked\r\n\r\nffffff\r\nabc"),
                StartsWith("HTTP/1.1 405 "));
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(HttpServer::idleSeconds));
}

TEST_F(HttpServerTest, RefusesHeadersThatAreTooLong) {
    const std::string padding(20000, 'x');
    EXPECT_THAT(answerTo(halfARequest + ("Padding: " + padding) + "\r\n\r\n"),
                StartsWith("HTTP/1.1 431 "));
    EXPECT_THAT(answerTo("GET /" + padding + " HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                StartsWith("HTTP/1.1 414 "));
    EXPECT_THAT(answerTo(halfARequest + ("Padding: " + std::string(6000, 'x')) + "\r\n\r\n"),
                EndsWith("\r\n\r\nshort\n"));
}

TEST_F(HttpServerTest, ClosesTheConnectionOfAClientThatDoesNotSpeakHttp) {
    EXPECT_THAT(answerTo("what is this\r\n\r\n"), Not(StartsWith("HTTP/1.1 200 ")));
    EXPECT_THAT(answerTo(std::string("\x16\x03\x01\x00\r\n\r\n", 8)),
                Not(StartsWith("HTTP/1.1 200 ")));
    expectPromptAnswer();
}

TEST_F(HttpServerTest, ClosesTheConnectionIfAPageThrows) {
    EXPECT_THAT(get("/failing"), IsEmpty());
    expectPromptAnswer();
}

TEST_F(HttpServerTest, AnswersDespiteIncompleteRequests) {
    std::vector<UniqueFd> waiting;
    for (const std::size_t count : {60U, 500U}) {
        while (waiting.size() < count) {
            waiting.push_back(connectionThatSays(waiting.size() % 2 == 0 ? halfARequest : ""));
        }
        expectPromptAnswer();
    }
}

TEST_F(HttpServerTest, AnswersWhileAPageIsComposed) {
    const UniqueFd slow = connectionThatSays("GET /slow HTTP/1.1\r\nHost: localhost\r\n\r\n");
    composing_.get_future().wait();
    expectPromptAnswer();
    composed_.set_value();
    EXPECT_THAT(answerOn(slow), EndsWith("\r\n\r\nslow\n"));
}

TEST_F(HttpServerTest, LimitsTheLongAnswersThatAreNotRead) {
    const std::string request = "GET /long HTTP/1.1\r\nHost: localhost\r\n\r\n";
    std::vector<UniqueFd> silent;
    for (unsigned i = 0; i < HttpServer::mostLongAnswers; ++i) {
        silent.push_back(connectionThatSays(request));
    }
    for (const UniqueFd& client : silent) {
        char first = 0;
        ASSERT_EQ(recv(client.get(), &first, 1, 0), 1);
    }
    // Only the beginning, so that a failure does not print a long answer.
    EXPECT_THAT(answerTo(request).substr(0, 1000),
                testing::AllOf(StartsWith("HTTP/1.1 503 "),
                               EndsWith("\r\n\r\ntoo many clients are being sent this page\n")));
    expectPromptAnswer();
    // After a client has disconnected, the next one is served.
    silent.pop_back();
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
    while (answerTo(request).size() < longText) {
        ASSERT_LT(Clock::now(), deadline);
    }
}

TEST_F(HttpServerTest, EndsWithoutWaitingForItsClients) {
    constexpr std::size_t clients = 61;
    std::vector<UniqueFd> waiting;
    waiting.reserve(clients);
    while (waiting.size() < clients - 1) {
        waiting.push_back(connectionThatSays(halfARequest));
    }
    waiting.push_back(connectionThatSays("GET /long HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    expectPromptAnswer();
    const Clock::time_point began = Clock::now();
    server_.reset();
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(1));
    EXPECT_THAT(answerOn(waiting.front()), IsEmpty());
}

// The number of descriptors of this process, including the one used for counting.
std::ptrdiff_t openDescriptors() {
    using Folder = std::filesystem::directory_iterator;
    return std::distance(Folder("/proc/self/fd"), Folder());
}

class DescriptorLimit {
 public:
    explicit DescriptorLimit(rlim_t limit) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit now{limit, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &now);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
    rlimit before_{};
};

TEST(HttpServerStartTest, ThrowsIfNoDescriptorIsLeft) {
    const std::ptrdiff_t before = openDescriptors();
    // The threads need two each.
    for (const rlim_t left : {0U, 1U, 2U, 3U}) {
        UniqueFd listening = listenOn("127.0.0.1", 0);
        const DescriptorLimit limit(static_cast<rlim_t>(listening.get()) + 1 + left);
        EXPECT_THROW(HttpServer(std::move(listening), {}), std::runtime_error) << left;
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace vesk::controller
