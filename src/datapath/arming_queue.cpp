#include "datapath/arming_queue.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "context/forwarder_context.h"
#include "datapath/serving_claim.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/lifecycle/endpoint_lifecycle.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

constexpr std::string_view failedArming = "Re-add UpEpt recv sockfd to poll set:";

/// Takes the right to arm the socket. False if it was armed since it was drained.
bool takeArming(VeskEndpointDescriptor& endpoint, std::uint32_t armings) {
    return endpoint.armings.compare_exchange_strong(armings, armings + 1,
                                                    std::memory_order_acq_rel);
}

}  // namespace

ArmingQueue::ArmingQueue(ForwarderContext& context) : context_(context) {
    drained_.reserve(maxPollRecords);
    ours_.reserve(maxPollRecords);
}

void ArmingQueue::add(const EndpointPtr& endpoint, std::uint32_t armings) {
    drained_.push_back({endpoint, armings});
}

void ArmingQueue::arm() {
    armDrained();
    if (!refused_.empty() && std::chrono::steady_clock::now() >= nextTry_) {
        retryRefused();
    }
}

/// Takes the right to arm a socket while it still has the claim, so that a worker that claims the
/// socket next is sure to arm it too. Of a socket that was drained twice, the second entry has no
/// claim of ours to end: another worker may have claimed the socket.
void ArmingQueue::armDrained() {
    for (Drained& it : drained_) {
        if (takeArming(*it.endpoint, it.armings)) {
            endServing(*it.endpoint);
            ours_.push_back(std::move(it.endpoint));
        }
    }
    drained_.clear();
    // Also one by one if the row fails, so that each socket has its own result.
    if (ours_.size() == 1 || (!ours_.empty() && request(ours_) != 0)) {
        std::ranges::for_each(ours_, [this](const EndpointPtr& it) { armOne(it); });
    }
    ours_.clear();
}

void ArmingQueue::armOne(const EndpointPtr& endpoint) {
    const int result = pollLoop_mod_fd(context_.pollSocket.get(), endpoint->rdsockfd, EPOLLIN);
    if (result == -EPIPE) {
        if (context_.shuttingDown.load(std::memory_order_acquire)) {
            return;
        }
        // The poll loop has ended by an error, so no more replies will be read.
        logFailedPollRequest("pollLoop_mod_fd", EPIPE);
    }
    if (result != 0) {
        reportRefused(endpoint, -result);
    }
}

void ArmingQueue::reportRefused(const EndpointPtr& endpoint, int error) {
    if (reportUpstreamNetworkError(*endpoint, failedArming, error, context_) != 0) {
        return;
    }
    if (refused_.empty()) {
        pause_ = shortestPause;
        nextTry_ = std::chrono::steady_clock::now() + pause_;
    }
    refused_.push_back(endpoint);
}

void ArmingQueue::retryRefused() {
    forgetRemoved();
    std::vector<EndpointPtr> waiting = std::exchange(refused_, {});
    bool armed = false;
    while (!waiting.empty()) {
        const auto row = std::span(waiting).last(std::min(waiting.size(), maxPollRecords));
        const int result = request(row);
        if (isPassingError(-result)) {
            refused_.insert(refused_.end(), waiting.begin(), waiting.end());
            pause_ = std::min(2 * pause_, longestPause);
            nextTry_ = std::chrono::steady_clock::now() + pause_;
            return;
        }
        if (result == 0) {
            armed = true;
        } else {
            std::ranges::for_each(row, [this](const EndpointPtr& it) { armOne(it); });
        }
        waiting.resize(waiting.size() - row.size());
    }
    if (armed && refused_.empty()) {
        logInfo(failedArming, " works again");
    }
}

int ArmingQueue::request(std::span<const EndpointPtr> endpoints) const {
    std::array<int, maxPollRecords> fds;
    std::ranges::transform(endpoints, fds.begin(),
                           [](const EndpointPtr& endpoint) { return endpoint->rdsockfd; });
    return pollLoop_mod_fds(context_.pollSocket.get(), std::span(fds).first(endpoints.size()),
                            EPOLLIN);
}

void ArmingQueue::forgetRemoved() {
    std::erase_if(refused_, [this](const EndpointPtr& it) {
        return context_.endpointManager->findEndpointByFd(it->rdsockfd) != it;
    });
}

std::optional<std::chrono::milliseconds> ArmingQueue::untilRetry() const {
    if (refused_.empty()) {
        return std::nullopt;
    }
    const auto left = nextTry_ - std::chrono::steady_clock::now();
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(left),
                    std::chrono::milliseconds(0));
}

}  // namespace vesk
