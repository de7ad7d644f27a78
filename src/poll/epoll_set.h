// The set of watched descriptors, which includes the message channel. Used only by the poll thread.
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_param.h"

namespace vesk {

/// The descriptors of one batch of events, by the kind of event.
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

    /// Registers the message channel, level-triggered, so that no record is missed. 0, or -errno
    /// after logging.
    int watchChannel();

    /// Waits for the next batch; a cancellation point. 0, or -errno, after logging, if the wait
    /// fails.
    int wait();

    /// Applies the records on the channel, and sorts the ready descriptors of the batch into
    /// `ready`.
    void sortBatch(ReadyLists& ready);

    /// Applies the records of one datagram that a worker has sent since the wait, if there is one.
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
    /// One element for each registered descriptor, including the channel.
    std::vector<epoll_event> events_;
    /// A copy of the batch, since records change the size of `events_`.
    std::vector<epoll_event> batch_;
    PollDatagram datagram_{};
};

}  // namespace vesk
