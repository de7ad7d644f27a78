// Compares the forwarder with the model's state.
#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <numeric>
#include <utility>

#include "context/forwarder_context.h"
#include "net/endpoint_manager.h"
#include "real_arming.h"
#include "support/descriptors.h"

namespace vesk::model {

namespace {

bool isReadable(int fd) {
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & POLLIN) != 0;
}

template <typename Value>
std::string compare(const std::string& what, Value real, Value expected) {
    return real == expected ? std::string()
                            : what + " is " + std::to_string(static_cast<int>(real)) +
                                  ", in the model " + std::to_string(static_cast<int>(expected));
}

/// The first text that is not empty.
std::string firstOf(std::initializer_list<std::string> differences) {
    const auto* const first =
        std::ranges::find_if(differences, [](const std::string& it) { return !it.empty(); });
    return first == differences.end() ? std::string() : *first;
}

template <std::size_t Capacity>
std::vector<std::uint8_t> itemsOf(const Fifo<std::uint8_t, Capacity>& fifo) {
    return {fifo.items.begin(), fifo.items.begin() + fifo.size};
}

}  // namespace

bool RealArming::recordIsWaiting() const {
    return isReadable(context_->serverPollSock.get());
}

std::string RealArming::differenceFrom(const State& expected) {
    std::string difference = numberDifference(expected);
    for (std::size_t i = 0; i < endpoints_.size(); ++i) {
        difference =
            firstOf({difference, endpointDifference(expected, i), socketDifference(expected, i)});
    }
    return firstOf(
        {difference, listDifference(expected), replyDifference(expected),
         compare("a record in the channel", recordIsWaiting(), !expected.channel.empty())});
}

std::string RealArming::endpointDifference(const State& expected, std::size_t index) const {
    const model::Endpoint& model = expected.endpoints.at(index);
    const Endpoint& real = endpoints_.at(index);
    const std::string name = "endpoint " + std::to_string(index) + ": ";
    const EndpointPtr held = real.descriptor.lock();
    if (!held || model.deletion != Deletion::notYet) {
        return compare(name + "held", held != nullptr, model.deletion == Deletion::notYet);
    }
    return firstOf(
        {compare(name + "in the tables",
                 context_->endpointManager->findEndpointByFd(real.readSocket) == held, model.filed),
         compare(name + "prepared", held->prepared.load(), model.prepared),
         compare(name + "worker that has the claim", serverOf(*held), model.server),
         compare(name + "count of armings", held->armings.load(), std::uint32_t{model.armings})});
}

std::string RealArming::socketDifference(const State& expected, std::size_t index) const {
    const model::Endpoint& model = expected.endpoints.at(index);
    const Endpoint& real = endpoints_.at(index);
    if (expected.owner.at(model.readNumber) != index) {
        return {};
    }
    const std::string name = "endpoint " + std::to_string(index) + ": ";
    return firstOf({compare(name + "watch", watchOf(real.readSocket), model.watch),
                    compare(name + "data", isReadable(real.readSocket), model.data > 0)});
}

/// The kernel assigns the lowest free number, as the model does.
std::string RealArming::numberDifference(const State& expected) {
    const auto bind = [this](std::uint8_t number, int socket) {
        int& descriptor = descriptors_.at(number);
        descriptor = descriptor == -1 ? socket : descriptor;
        return compare("descriptor number " + std::to_string(number), socket, descriptor);
    };
    std::string difference;
    for (std::size_t i = 0; i < endpoints_.size(); ++i) {
        const model::Endpoint& model = expected.endpoints.at(i);
        difference = firstOf({difference, bind(model.readNumber, endpoints_.at(i).readSocket),
                              bind(model.writeNumber, endpoints_.at(i).writeSocket)});
    }
    for (std::size_t number = 0; number < descriptors_.size(); ++number) {
        if (descriptors_.at(number) != -1) {
            difference =
                firstOf({difference, compare("descriptor open", isOpen(descriptors_[number]),
                                             expected.owner.at(number) != noOne)});
        }
    }
    return difference;
}

std::string RealArming::listDifference(const State& expected) const {
    std::string difference = std::ranges::equal(ready_, socketsOf(itemsOf(expected.ready)))
                                 ? ""
                                 : "other sockets are ready than in the model";
    for (std::size_t who = 0; who < workers_.size(); ++who) {
        const model::Worker& model = expected.workers.at(who);
        if (!std::ranges::equal(workers_.at(who).serving, socketsOf(itemsOf(model.serving)))) {
            difference = "worker " + std::to_string(who) + " has other sockets to serve";
        }
        const bool inCall = model.step == WorkerStep::receive || model.step == WorkerStep::handle;
        difference = firstOf(
            {difference, compare("worker in a call", actors_.workers.at(who).paused(), inCall)});
    }
    return difference;
}

/// An operation either receives replies or sends them.
std::string RealArming::replyDifference(const State& expected) {
    std::size_t unsent = 0;
    for (const model::Worker& worker : expected.workers) {
        unsent = std::reduce(worker.unsent.begin(), worker.unsent.end(), unsent);
    }
    const std::size_t before = std::exchange(unsent_, unsent);
    return compare("number of replies sent", surroundings_.takeReplies(),
                   before > unsent ? before - unsent : 0);
}

std::uint8_t RealArming::serverOf(const VeskEndpointDescriptor& endpoint) const {
    const auto has = [server = endpoint.server.load()](const Worker& worker) {
        return worker.receiver.get() == server;
    };
    const auto worker = std::ranges::find_if(workers_, has);
    return worker == workers_.end() ? noOne : static_cast<std::uint8_t>(worker - workers_.begin());
}

/// As the kernel shows it: a descriptor that has fired has no events.
Watch RealArming::watchOf(int socket) const {
    std::ifstream set("/proc/self/fdinfo/" + std::to_string(pollThread_.epollSet.get()));
    for (std::string word; set >> word;) {
        int descriptor = -1;
        unsigned events = 0;
        if (word == "tfd:" && set >> descriptor >> word >> std::hex >> events >> std::dec &&
            descriptor == socket) {
            return (events & EPOLLIN) != 0 ? Watch::armed : Watch::fired;
        }
    }
    return Watch::none;
}

std::vector<int> RealArming::socketsOf(const std::vector<std::uint8_t>& numbers) const {
    std::vector<int> sockets(numbers.size());
    std::ranges::transform(numbers, sockets.begin(),
                           [this](std::uint8_t number) { return descriptors_.at(number); });
    return sockets;
}

}  // namespace vesk::model
