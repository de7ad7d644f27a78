// The set of watched descriptors, with the message channel among them. Used by the poll thread
// alone.
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_param.h"

namespace vesk {

/// The descriptors of one batch of events, by what happened to them.
struct ReadyLists {
    std::vector<int> read;
    std::vector<int> write;
    std::vector<int> error;

    ReadyLists();
    void clear();
};

class EpollSet {
 public:
    explicit EpollSet(PollThreadParam& param);
    EpollSet(const EpollSet&) = delete;
    EpollSet& operator=(const EpollSet&) = delete;

    /// Registers the message channel; level-triggered, so that no record is overlooked. 0 or
    /// -errno.
    int watchChannel();

    /// Waits for the next batch; -errno when that is no longer possible.
    int wait();

    /// Applies the records and sorts the descriptors of the batch.
    void sortBatch(ReadyLists& ready);

    /// Applies the records that a worker sent meanwhile, if there are any.
    void takeEarlyRecords();

 private:
    void takeRecords();
    ssize_t receiveRecords();
    void applyRecords(ssize_t received);
    void apply(const PollCtlMsg& message);
    void count(const PollCtlMsg& message);
    void sort(const epoll_event& event, ReadyLists& ready);
    void addActive(std::int32_t change);

    PollThreadParam& param_;
    const int epoll_;
    /// As many as there are descriptors registered, the channel included.
    std::vector<epoll_event> events_;
    /// The batch itself, out of the way of records that change the size of the array.
    std::vector<epoll_event> batch_;
    PollDatagram datagram_{};
};

}  // namespace vesk
