// Serves pages over HTTP/1.1 to clients that may be slow, silent or many. MetricsServer makes one
// and says what the pages are. The thread that makes it also destroys it.
//
// Two threads of the server, with all signals blocked, accept clients, compose the answers (they
// call the Page functions) and send them. Each serves many connections and waits for none of them,
// so a client that says nothing delays nobody. While one composes a long page the other still
// accepts and answers.
//
// Each answer ends its connection, and the body of a request is never read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/unique_fd.h"

struct MHD_Daemon;

namespace vesk::controller {

/// The content type of the short pages.
inline constexpr const char* plainText = "text/plain; charset=utf-8";

struct Answer {
    unsigned status = 0;
    const char* contentType = nullptr;
    std::string text;
};

struct ServedPages;

class HttpServer {
 public:
    /// Composes the answer to GET and HEAD. Both threads may call it at once.
    using Page = std::function<Answer()>;
    /// By path, from its slash on.
    using Pages = std::map<std::string, Page, std::less<>>;

    /// Fewer than the 1024 descriptors that a process may have at least.
    static constexpr unsigned mostConnections = 768;
    /// One address cannot take all of them.
    static constexpr unsigned mostConnectionsOfOneAddress = 576;
    /// A connection on which nothing moves for so long is closed. Prometheus waits ten seconds for
    /// a scrape.
    static constexpr unsigned idleSeconds = 5;
    /// Clients that do not read a long answer keep it in memory. When so many are being sent, the
    /// next client gets status 503 instead.
    static constexpr unsigned mostLongAnswers = 16;
    /// An answer of more bytes is a long one. The kernel takes a shorter one at once.
    static constexpr std::size_t longAnswer = 65536;

    /// Serves on a socket that listens, until its destruction, which ends all connections. Throws
    /// std::runtime_error where no descriptor, thread or memory is left for it.
    HttpServer(UniqueFd listening, Pages pages);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const { return port_; }

 private:
    struct StopServing {
        void operator()(MHD_Daemon* daemon) const;
    };

    std::uint16_t port_;
    std::unique_ptr<ServedPages> served_;
    // Last, so that its threads have ended before what they use goes.
    std::unique_ptr<MHD_Daemon, StopServing> daemon_;
};

}  // namespace vesk::controller
