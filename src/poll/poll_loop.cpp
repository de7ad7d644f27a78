#include "poll/poll_loop.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/thread_control.h"
#include "log/error_text.h"
#include "log/log.h"
#include "poll/linger.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

constexpr std::uint32_t oneShot = static_cast<std::uint32_t>(EPOLLET) | EPOLLONESHOT;

/// The descriptors of one batch of events, by what happened to them.
struct ReadyLists {
    std::vector<int> read;
    std::vector<int> write;
    std::vector<int> error;

    ReadyLists() {
        for (std::vector<int>* list : {&read, &write, &error}) {
            list->reserve(usualReadyCount);
        }
    }
    void clear() {
        read.clear();
        write.clear();
        error.clear();
    }
};

class EpollSet {
 public:
    explicit EpollSet(PollThreadParam& param)
        : param_(param), epoll_(param.epollSet.get()), events_(1) {
        batch_.reserve(usualReadyCount);
    }

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

int EpollSet::watchChannel() {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = param_.msgchanfd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, param_.msgchanfd, &event) != 0) {
        const int error = param_.epollSet ? errno : param_.epollSetError;
        logError("Failed to add msgchanfd to epoll set: ", errorText(error));
        return -error;
    }
    return 0;
}

int EpollSet::wait() {
    while (true) {
        int count = 0;
        int error = 0;
        {
            const CancellationScope cancellable;
            count = epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), -1);
            error = errno;
        }
        if (count >= 0) {
            batch_.assign(events_.begin(), events_.begin() + count);
            return 0;
        }
        if (error != EINTR) {
            logError("Failed epoll_wait: ", errorText(error));
            return -error;
        }
    }
}

void EpollSet::sortBatch(ReadyLists& ready) {
    ready.clear();
    for (const epoll_event& event : batch_) {
        if (event.data.fd == param_.msgchanfd) {
            takeRecords();
        } else {
            sort(event, ready);
        }
    }
}

void EpollSet::takeEarlyRecords() {
    const ssize_t received = receiveRecords();
    if (received >= 0) {
        applyRecords(received);
    }
}

void EpollSet::takeRecords() {
    const ssize_t received = receiveRecords();
    if (received < 0) {
        logError("recv: msgchanfd");
        return;
    }
    applyRecords(received);
}

ssize_t EpollSet::receiveRecords() {
    return recv(param_.msgchanfd, datagram_.data(), datagram_.size(), 0);
}

void EpollSet::applyRecords(ssize_t received) {
    if (!forEachRecord(std::span(datagram_).first(static_cast<std::size_t>(received)),
                       [this](const PollCtlMsg& message) {
                           apply(message);
                           if (message.op == EPOLL_CTL_DEL) {
                               param_.deletions.increment();
                           }
                       })) {
        logError("recv: msgchanfd: short read on a datagram socket!\n");
    }
}

void EpollSet::apply(const PollCtlMsg& message) {
    epoll_event event{};
    event.events = message.events;
    if (message.op == EPOLL_CTL_ADD || message.op == EPOLL_CTL_MOD) {
        event.events |= oneShot;
    }
    event.data.u64 = static_cast<std::uint32_t>(message.fd);
    if (epoll_ctl(epoll_, static_cast<int>(message.op), message.fd, &event) == 0) {
        count(message);
        return;
    }
    const int error = errno;
    if (message.op == EPOLL_CTL_DEL && error == ENOENT) {
        close(message.fd);
        return;
    }
    logError("epoll_ctl error: msgchanfd ctl_op ", message.op, " fd ", message.fd, " errno ", error,
             " (", errorText(error), ")");
}

void EpollSet::count(const PollCtlMsg& message) {
    switch (message.op) {
        case EPOLL_CTL_ADD:
            addActive(1);
            events_.emplace_back();
            break;
        case EPOLL_CTL_DEL:
            close(message.fd);
            addActive(-1);
            events_.pop_back();
            break;
        case EPOLL_CTL_MOD:
            addActive(1);
            break;
        default:
            break;
    }
}

void EpollSet::sort(const epoll_event& event, ReadyLists& ready) {
    const int fd = event.data.fd;
    if ((event.events & EPOLLIN) != 0) {
        ready.read.push_back(fd);
        param_.RdReadyNr.increment();
        addActive(-1);
    }
    if ((event.events & EPOLLOUT) != 0) {
        ready.write.push_back(fd);
        param_.WrReadyNr.increment();
        addActive(-1);
    }
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
        ready.error.push_back(fd);
        param_.ErrorNr.increment();
    }
}

void EpollSet::addActive(std::int32_t change) {
    param_.ActiveEvtNr.store(param_.ActiveEvtNr.load(std::memory_order_relaxed) + change,
                             std::memory_order_relaxed);
}

void callUnlessEmpty(const ReadyCallback& callback, const std::vector<int>& fds) {
    if (!fds.empty()) {
        callback(fds);
    }
}

}  // namespace

// After a single socket: its worker is mostly done with it, and has asked for it to be armed again,
// by the time that this thread has its turn again; it then need not wait, be woken and ask what
// woke it. With more sockets ready a yield costs more than it gains: requests pile up meanwhile.
int pollLoop(PollThreadParam& param, const ReadyCallback& onRead, const ReadyCallback& onWrite,
             const ReadyCallback& onError) {
    EpollSet set(param);
    int result = set.watchChannel();
    ReadyLists ready;
    Lingerer lingerer;
    while (result == 0) {
        result = set.wait();
        if (result == 0 && param.ended.load(std::memory_order_acquire)) {
            // The channel is retired: it would be readable for ever, with nothing in it.
            return 0;
        }
        if (result == 0) {
            set.sortBatch(ready);
            callUnlessEmpty(onRead, ready.read);
            callUnlessEmpty(onWrite, ready.write);
            callUnlessEmpty(onError, ready.error);
            if (ready.read.size() == 1 && lingerer.linger()) {
                set.takeEarlyRecords();
            }
        }
    }
    return result;
}

void runPollThread(PollThreadParam& param) {
    const auto dealTo = [](PollParams queues, unsigned long start) -> ReadyCallback {
        return [queues = std::move(queues), start](const std::vector<int>& fds) mutable {
            distributeReadyFds(fds, queues, start);
        };
    };
    pollLoop(param, dealTo(param.readQueues, param.readStart),
             dealTo(param.writeQueues, param.writeStart), reportPollErrors);
    param.ended.store(true, std::memory_order_release);
    retirePollChannel(param.msgchanfd);
}

void distributeReadyFds(const std::vector<int>& fds, const PollParams& queues,
                        unsigned long& start) {
    const std::size_t served = std::min(fds.size(), queues.size());
    for (std::size_t first = 0; first < served; ++first) {
        PollParam& worker = *queues[(start + first) % queues.size()];
        bool waits = false;
        {
            const MutexLock lock(worker.mutex);
            for (std::size_t i = first; i < fds.size(); i += queues.size()) {
                worker.queue.push_back(fds[i]);
            }
            waits = std::exchange(worker.waiting, false);
        }
        // Without the lock, or the first thing that the worker does is wait for it.
        if (waits) {
            worker.wakeUp.post();
        }
    }
    start += fds.size();
}

void reportPollErrors(const std::vector<int>& /*fds*/) {}

}  // namespace vesk
