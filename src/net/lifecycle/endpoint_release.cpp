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

/// The most deletions that may wait for the poll thread when another row is sent. Together that is
/// at most two rows: the poll thread has work while the sender sleeps, and finishes both rows in a
/// fraction of a millisecond.
constexpr std::uint64_t mostWaiting = maxPollRecords;
constexpr useconds_t pauseMicroseconds = 100;
/// After this many pauses (at least a second), the row is sent in any case.
constexpr int mostPauses = 10000;

/// Collects the sockets of endpoints in rows of deletion records.
class DeletionRows {
 public:
    explicit DeletionRows(const std::shared_ptr<ForwarderContext>& context)
        : context_(context), before_(carriedOut()) {}

    void release(EndpointPtr endpoint);
    /// Sends the records collected.
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
    // Another thread that still holds it asks for the deletion when it releases it. No
    // further thread can get a reference, since the endpoint is in no table.
    if (endpoint.use_count() != 1) {
        return;
    }
    endpoint->detachSockets();
    sockets_[count_++] = endpoint->wrsockfd;
    sockets_[count_++] = endpoint->rdsockfd;
    // Released before the row is sent: the endpoint must not be used after its sockets are closed.
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
    // The two records of a single endpoint need no row. Records sent one by one are not counted in
    // `sent_`, since some may fail; if the channel is full, their sender waits anyway.
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

/// Waits until few enough deletions are outstanding. Deletions of other threads are counted too, so
/// a row may be sent early, which does no harm.
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
