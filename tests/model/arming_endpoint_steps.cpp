// The threads that create and remove an endpoint, and its deleter.
#include <algorithm>

#include "arming_steps.h"

namespace vesk::model {

void Stepper::creator() {
    const std::uint8_t held = from_.creatorHolds;
    switch (from_.creator) {
        case CreatorStep::idle:
            if (mayCreate()) {
                add(
                    "an endpoint is created", [](State& next) { create(next); }, true);
            }
            break;
        case CreatorStep::registerSocket:
            registerSocket(held);
            break;
        case CreatorStep::markPrepared:
            add("the endpoint is marked prepared", [held](State& next) {
                next.endpoints.at(held).prepared = true;
                next.creator = CreatorStep::forward;
            });
            break;
        case CreatorStep::forward:
            forward(held);
            break;
        case CreatorStep::release:
            add("its creator releases it", [this](State& next) {
                next.creator = CreatorStep::idle;
                letGo(next, next.creatorHolds);
            });
            break;
    }
}

bool Stepper::mayCreate() const {
    const std::uint8_t made = from_.endpointsMade;
    return made < bounds_.endpoints &&
           (made < bounds_.labels ||
            !from_.endpoints.at(static_cast<std::size_t>(made - bounds_.labels)).filed);
}

std::uint8_t Stepper::openNumber(State& next, std::uint8_t index) {
    const auto free = std::ranges::find(next.owner, noOne);
    *free = index;
    return static_cast<std::uint8_t>(free - next.owner.begin());
}

void Stepper::create(State& next) {
    const std::uint8_t index = next.endpointsMade++;
    Endpoint& endpoint = next.endpoints.at(index);
    endpoint.created = true;
    endpoint.readNumber = openNumber(next, index);
    endpoint.writeNumber = openNumber(next, index);
    endpoint.filed = true;
    next.creatorHolds = index;
    next.creator = CreatorStep::registerSocket;
}

void Stepper::registerSocket(std::uint8_t held) {
    if (channelHasRoom()) {
        add("its creator requests that it be watched", [held](State& next) {
            next.channel.push({Op::add, next.endpoints.at(held).readNumber, held});
            next.creator = CreatorStep::markPrepared;
        });
    }
    mayFail("it cannot be set up", [held](State& next) {
        next.endpoints.at(held).filed = false;
        next.creator = CreatorStep::release;
    });
}

void Stepper::forward(std::uint8_t held) {
    add("its first datagram is sent", [held](State& next) {
        if (next.owner.at(next.endpoints.at(held).writeNumber) != held) {
            next.fault = Fault::usedAfterClose;
        }
        next.creator = CreatorStep::release;
    });
    if (from_.removals < bounds_.removals) {
        add("its first datagram was forged", [held](State& next) {
            ++next.removals;
            next.endpoints.at(held).filed = false;
            next.creator = CreatorStep::release;
        });
    }
}

void Stepper::remover() {
    if (from_.removerHolds != noOne) {
        add("its remover releases it", [this](State& next) { letGo(next, next.removerHolds); });
        return;
    }
    for (std::uint8_t i = 0; i < maxEndpoints; ++i) {
        if (from_.endpoints.at(i).filed && from_.removals < bounds_.removals) {
            add(
                "an endpoint is removed",
                [i](State& next) {
                    ++next.removals;
                    next.endpoints.at(i).filed = false;
                    next.removerHolds = i;
                },
                true);
        }
    }
}

void Stepper::deleter(std::uint8_t index) {
    const Endpoint& endpoint = from_.endpoints.at(index);
    if (endpoint.deletion == Deletion::writeSocket) {
        dispose(index, endpoint.writeNumber, Deletion::readSocket);
    } else if (endpoint.deletion == Deletion::readSocket) {
        dispose(index, endpoint.readNumber, Deletion::done);
    }
}

void Stepper::dispose(std::uint8_t index, std::uint8_t number, Deletion then) {
    const Change closeHere = [index, number, then](State& next) {
        next.endpoints.at(index).deletion = then;
        closeNumber(next, number);
    };
    if (!rules_.pollThreadCloses) {
        add("the deleter closes", [&](State& next) {
            const Endpoint& endpoint = next.endpoints.at(index);
            if (number == endpoint.readNumber && endpoint.watch != Watch::none) {
                next.fault = Fault::closedWhileWatched;
            }
            closeHere(next);
        });
        return;
    }
    if (channelHasRoom()) {
        add("the deleter requests that a socket be closed", [&](State& next) {
            next.endpoints.at(index).deletion = then;
            next.channel.push({Op::remove, number, index});
        });
    }
    // The only case in which a socket is closed that is watched or is about to be. A worker that it
    // wakes, or an arming, before the poll thread has closed the other descriptor must be harmless.
    mayFail("the deleter's request fails and it closes the socket", [&](State& next) {
        next.closedUnasked = true;
        closeHere(next);
    });
}

}  // namespace vesk::model
