// Serves pages over HTTP/1.1, even to slow, silent or many clients. MetricsServer makes one and
// supplies the pages. The thread that makes it also destroys it.
//
// The server has two threads, with all signals blocked. They accept clients, compose the answers by
// calling the Page functions, and send them. Each serves many connections without waiting for any,
// so a silent client does not delay others. While one thread composes a long page, the other
// continues to accept and answer.
//
// Each connection is closed after its answer, and the body of a request is never read.
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
    /// By path, with its leading slash.
    using Pages = std::map<std::string, Page, std::less<>>;

    /// Fewer than 1024, the usual limit on descriptors of a process.
    static constexpr unsigned mostConnections = 768;
    /// Less than all, so that other addresses can still connect.
    static constexpr unsigned mostConnectionsOfOneAddress = 576;
    /// A connection without traffic for this time is closed. Prometheus waits ten seconds for a
    /// scrape.
    static constexpr unsigned idleSeconds = 5;
    /// A long answer stays in memory until the client has read it. If this many are being sent, the
    /// next client gets status 503 instead.
    static constexpr unsigned mostLongAnswers = 16;
    /// An answer of more bytes is a long one. The kernel buffers a shorter one at once.
    static constexpr std::size_t longAnswer = 65536;

    /// Serves on a listening socket until it is destroyed, which ends all connections. Throws
    /// std::runtime_error if no descriptor, thread or memory is left.
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
    // Last, so that its threads end before the members that they use are destroyed.
    std::unique_ptr<MHD_Daemon, StopServing> daemon_;
};

}  // namespace vesk::controller
