#include "net/lifecycle/endpoint_release.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "context/forwarder_context.h"
#include "net/lifecycle/endpoint_lifecycle.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

/// So many deletions may wait for the poll thread when another row is sent. With two rows it has
/// something to do while the sender sleeps, and is done with both in a fraction of a millisecond.
constexpr std::uint64_t mostWaiting = maxPollRecords;
constexpr useconds_t pauseMicroseconds = 100;
/// After so many pauses, a second at least, the row is sent whatever waits.
constexpr int mostPauses = 10000;

/// Collects the sockets of endpoints into rows of deletion records.
class DeletionRows {
 public:
    explicit DeletionRows(const std::shared_ptr<ForwarderContext>& context)
        : context_(context), before_(carriedOut()) {}

    void release(EndpointPtr endpoint);
    /// Sends what is collected.
    void send();

 private:
    std::uint64_t carriedOut() const;
    void awaitRoom() const;
    void sendOneByOne() const;

    const std::shared_ptr<ForwarderContext>& context_;
    /// Each endpoint's write socket, then its read socket.
    std::array<int, maxPollRecords> sockets_{};
    std::size_t count_ = 0;
    std::uint64_t sent_ = 0;
    const std::uint64_t before_;
};

void DeletionRows::release(EndpointPtr endpoint) {
    // Whoever else holds it asks for the deletion when it lets go. Nobody new can come to hold it:
    // it is in no table.
    if (endpoint.use_count() != 1) {
        return;
    }
    endpoint->detachSockets();
    sockets_[count_++] = endpoint->wrsockfd;
    sockets_[count_++] = endpoint->rdsockfd;
    // Before the row is sent: no use of the endpoint may follow the closing of its sockets.
    endpoint.reset();
    if (count_ == sockets_.size()) {
        send();
    }
}

void DeletionRows::send() {
    if (count_ == 0) {
        return;
    }
    awaitRoom();
    const auto row = std::span(sockets_).first(count_);
    // A single endpoint's two records need no row. Of records sent one by one some may not arrive,
    // so nothing waits for them; a full channel makes their sender wait anyway.
    if (count_ > 2 && pollLoop_del_fds(context_->pollSocket.get(), row) == 0) {
        sent_ += count_;
    } else {
        sendOneByOne();
    }
    count_ = 0;
}

void DeletionRows::sendOneByOne() const {
    for (std::size_t i = 0; i < count_; i += 2) {
        endpointSocketDestructor(sockets_[i + 1], sockets_[i], context_);
    }
}

std::uint64_t DeletionRows::carriedOut() const {
    return context_->pollThread ? context_->pollThread->deletions.value() : 0;
}

/// Others' deletions count as ours: then more is sent early, which does no harm.
void DeletionRows::awaitRoom() const {
    const PollThreadParam* const loop = context_->pollThread.get();
    for (int pauses = 0; loop != nullptr && pauses < mostPauses; ++pauses) {
        if (sent_ <= carriedOut() - before_ + mostWaiting ||
            loop->ended.load(std::memory_order_relaxed)) {
            return;
        }
        usleep(pauseMicroseconds);
    }
}

}  // namespace

void releaseEndpoints(std::vector<EndpointPtr> endpoints,
                      const std::shared_ptr<ForwarderContext>& context) {
    const auto unbound =
        std::stable_partition(endpoints.begin(), endpoints.end(),
                              [](const EndpointPtr& endpoint) { return endpoint->isBound(); });
    DeletionRows rows(context);
    for (auto next = endpoints.begin(); next != endpoints.end(); ++next) {
        if (next == unbound) {
            rows.send();
        }
        rows.release(std::move(*next));
    }
    rows.send();
}

}  // namespace vesk
