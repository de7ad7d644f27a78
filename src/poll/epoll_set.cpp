#include "poll/epoll_set.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <span>

#include "base/thread_control.h"
#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

constexpr std::uint32_t oneShot = static_cast<std::uint32_t>(EPOLLET) | EPOLLONESHOT;

}  // namespace

ReadyLists::ReadyLists() {
    for (std::vector<int>* list : {&read, &write, &error}) {
        list->reserve(usualReadyCount);
    }
}

void ReadyLists::clear() {
    read.clear();
    write.clear();
    error.clear();
}

EpollSet::EpollSet(PollThreadParam& param)
    : param_(param), epoll_(param.epollSet.get()), events_(1) {
    batch_.reserve(usualReadyCount);
}

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

}  // namespace vesk
