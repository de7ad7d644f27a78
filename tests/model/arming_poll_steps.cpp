// The steps of the world, which sends datagrams, and of the poll thread.
#include <algorithm>

#include "arming_steps.h"

namespace vesk::model {

namespace {

bool isReady(const Endpoint& endpoint) {
    return endpoint.watch == Watch::armed && endpoint.data > 0;
}

}  // namespace

void Stepper::outside() {
    for (std::uint8_t i = 0; i < from_.endpointsMade; ++i) {
        if (from_.arrivals < bounds_.arrivals && socketIsOpen(from_, i)) {
            add(
                "a datagram arrives",
                [i](State& next) {
                    ++next.arrivals;
                    ++next.endpoints.at(i).data;
                },
                true);
        }
    }
}

void Stepper::pollThread() {
    if (from_.recordReady) {
        add("poll thread executes a record", [this](State& next) { takeRecord(next); });
    } else if (!from_.ready.empty()) {
        for (std::size_t i = 0; i < from_.workers.size(); ++i) {
            add("poll thread distributes a socket",
                [i](State& next) { next.workers.at(i).queue.push(next.ready.pop()); });
        }
    } else if (!from_.channel.empty() || std::ranges::any_of(from_.endpoints, isReady)) {
        add("poll thread wakes", [](State& next) { wake(next); });
    }
}

void Stepper::wake(State& next) {
    next.recordReady = !next.channel.empty();
    for (Endpoint& endpoint : next.endpoints) {
        if (isReady(endpoint)) {
            endpoint.watch = Watch::fired;
            next.ready.push(endpoint.readNumber);
        }
    }
}

void Stepper::takeRecord(State& next) const {
    next.recordReady = false;
    const Record record = next.channel.pop();
    const std::uint8_t owner = next.owner.at(record.number);
    if (owner != record.endpoint) {
        complain(next, Fault::usedAfterClose);
    }
    // A write descriptor that is watched by mistake wakes a worker without effect.
    if (owner != noOne &&
        (record.op == Op::remove || record.number == next.endpoints.at(owner).readNumber)) {
        apply(next, record, next.endpoints.at(owner));
    }
}

/// As the kernel does, regardless of the current owner of the descriptor.
void Stepper::apply(State& next, const Record& record, Endpoint& endpoint) const {
    if (record.op == Op::remove) {
        if (record.number == endpoint.readNumber) {
            endpoint.watch = Watch::none;
        }
        closeNumber(next, record.number);
    } else if ((record.op == Op::add) != (endpoint.watch == Watch::none)) {
        complain(next, Fault::refusedByEpoll);
    } else if (bounds_.armedOnce && endpoint.watch == Watch::armed) {
        complain(next, Fault::armedTwice);
    } else {
        endpoint.watch = Watch::armed;
    }
}

/// After a close without the poll thread a record may fail, which the poll thread only logs.
void Stepper::complain(State& next, Fault fault) {
    if (!next.closedUnasked) {
        next.fault = fault;
    }
}

}  // namespace vesk::model
