#include "names/name_questions.h"

#include <ares.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace vesk::controller {

namespace {

/// The second try waits twice as long, so a question without an answer ends after 6 s.
constexpr int firstTryMilliseconds = 2000;
constexpr int tries = 2;

/// What the library passes back with an answer.
struct Pending {
    std::uint32_t index;
    std::vector<NameAnswer>& answers;
};

std::string textOf(const sockaddr& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    // The library's addresses are generic; their family says what they are.
    const void* const number =
        address.sa_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr)
            : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
    return inet_ntop(address.sa_family, number, text.data(), text.size()) == nullptr ? ""
                                                                                     : text.data();
}

NameAnswer answerOf(std::uint32_t index, int status, const ares_addrinfo* found) {
    NameAnswer answer{index, {}, status == ARES_SUCCESS ? "" : ares_strerror(status)};
    if (found != nullptr) {
        for (const ares_addrinfo_node* it = found->nodes; it != nullptr; it = it->ai_next) {
            answer.addresses.push_back(textOf(*it->ai_addr));
        }
    }
    if (answer.addresses.empty() && answer.problem.empty()) {
        answer.problem = "the name has no address of this family";
    }
    return answer;
}

void takeAnswer(void* argument, int status, int /*timeouts*/, ares_addrinfo* found) {
    const std::unique_ptr<Pending> pending(static_cast<Pending*>(argument));
    const std::unique_ptr<ares_addrinfo, decltype(&ares_freeaddrinfo)> owned(found,
                                                                             &ares_freeaddrinfo);
    // The channel is being closed: the question has been dropped.
    if (status != ARES_EDESTRUCTION) {
        pending->answers.push_back(answerOf(pending->index, status, found));
    }
}

}  // namespace

void NameQuestions::CloseChannel::operator()(ares_channeldata* channel) const {
    ares_destroy(channel);
}

NameQuestions::NameQuestions() {
    ares_library_init(ARES_LIB_INIT_ALL);
}

NameQuestions::~NameQuestions() {
    drop();
    ares_library_cleanup();
}

bool NameQuestions::open() {
    ares_options options{};
    options.timeout = firstTryMilliseconds;
    options.tries = tries;
    ares_channel channel = nullptr;
    const int status = ares_init_options(&channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES);
    channel_.reset(status == ARES_SUCCESS ? channel : nullptr);
    return channel_ != nullptr;
}

void NameQuestions::ask(const std::vector<NameQuestion>& questions) {
    drop();
    const bool opened = open();
    for (const NameQuestion& question : questions) {
        if (!opened) {
            answers_.push_back({question.index, {}, "the name servers' settings cannot be read"});
            continue;
        }
        ares_addrinfo_hints hints{};
        hints.ai_family = question.ipv6 ? AF_INET6 : AF_INET;
        hints.ai_flags = ARES_AI_NOSORT;
        auto pending = std::make_unique<Pending>(Pending{question.index, answers_});
        ares_getaddrinfo(channel_.get(), question.name.c_str(), nullptr, &hints, takeAnswer,
                         pending.release());
    }
}

void NameQuestions::drop() {
    channel_.reset();
    answers_.clear();
}

std::vector<pollfd> NameQuestions::watched() const {
    std::vector<pollfd> watched;
    if (!channel_) {
        return watched;
    }
    std::array<ares_socket_t, ARES_GETSOCK_MAXNUM> sockets{};
    const auto used = static_cast<unsigned>(
        ares_getsock(channel_.get(), sockets.data(), static_cast<int>(sockets.size())));
    for (unsigned i = 0; i < sockets.size(); ++i) {
        const bool reads = (used >> i & 1U) != 0;
        const bool writes = (used >> (i + ARES_GETSOCK_MAXNUM) & 1U) != 0;
        if (reads || writes) {
            const int events = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
            watched.push_back({sockets[i], static_cast<short>(events), 0});
        }
    }
    return watched;
}

std::optional<NameQuestions::Clock::time_point> NameQuestions::dueAt() const {
    timeval left{};
    if (!channel_ || ares_timeout(channel_.get(), nullptr, &left) == nullptr) {
        return std::nullopt;
    }
    return Clock::now() + std::chrono::seconds(left.tv_sec) +
           std::chrono::microseconds(left.tv_usec);
}

void NameQuestions::handle(std::span<const pollfd> watched) {
    if (!channel_) {
        return;
    }
    for (const pollfd& it : watched) {
        if (it.revents != 0) {
            ares_process_fd(channel_.get(), it.fd,
                            (it.revents & POLLOUT) != 0 ? it.fd : ARES_SOCKET_BAD);
        }
    }
    ares_process_fd(channel_.get(), ARES_SOCKET_BAD, ARES_SOCKET_BAD);
}

std::vector<NameAnswer> NameQuestions::take() {
    return std::exchange(answers_, {});
}

}  // namespace vesk::controller
