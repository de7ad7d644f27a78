#include "arming_model.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace vesk::model {

template <typename Item, std::size_t Capacity>
Item Fifo<Item, Capacity>::pop() {
    const Item front = items.front();
    std::rotate(items.begin(), items.begin() + 1, items.end());
    items.back() = Item{};
    --size;
    return front;
}

template <typename Item, std::size_t Capacity>
bool Fifo<Item, Capacity>::contains(Item item) const {
    return std::find(items.begin(), items.begin() + size, item) != items.begin() + size;
}

namespace {

bool socketIsOpen(const State& state, std::uint8_t index) {
    return std::ranges::find(state.owner, index) != state.owner.end();
}

bool isHeld(const State& state, std::uint8_t index, const Rules& rules) {
    const auto holds = [index, &rules](const Worker& it) {
        return it.endpoint == index || it.refused.contains(index) ||
               (rules.holdsDrained && it.drained.contains(index));
    };
    return state.endpoints.at(index).filed || state.creatorHolds == index ||
           state.removerHolds == index || std::ranges::any_of(state.workers, holds);
}

void closeNumber(State& state, std::uint8_t number) {
    const std::uint8_t index = state.owner.at(number);
    state.owner.at(number) = noOne;
    if (!socketIsOpen(state, index)) {
        // The last descriptor of a socket takes it out of the epoll set, and what it held with it.
        state.endpoints.at(index).watch = Watch::none;
        state.endpoints.at(index).data = 0;
    }
}

bool isReady(const Endpoint& endpoint) {
    return endpoint.watch == Watch::armed && endpoint.data > 0;
}

class Stepper {
 public:
    Stepper(const State& from, const Rules& rules, const Bounds& bounds,
            std::vector<Transition>& out)
        : from_(from), rules_(rules), bounds_(bounds), out_(out) {}

    void all() {
        outside();
        pollThread();
        creator();
        remover();
        for (std::uint8_t i = 0; i < maxEndpoints; ++i) {
            deleter(i);
        }
        for (std::size_t i = 0; i < from_.workers.size(); ++i) {
            worker(i);
        }
    }

 private:
    using Change = std::function<void(State&)>;

    void add(std::string_view name, const Change& change, bool fromOutside = false) {
        out_.push_back({name, fromOutside, from_});
        change(out_.back().next);
    }

    void mayFail(std::string_view name, const Change& change) {
        if (from_.failures < bounds_.failures) {
            add(name, [&change](State& next) {
                ++next.failures;
                change(next);
            });
        }
    }

    /// The last release runs the deleter.
    void letGo(State& next, std::uint8_t& holder) const {
        disposeIfFree(next, std::exchange(holder, noOne));
    }

    void disposeIfFree(State& next, std::uint8_t index) const {
        Deletion& deletion = next.endpoints.at(index).deletion;
        if (deletion == Deletion::notYet && !isHeld(next, index, rules_)) {
            deletion = Deletion::writeSocket;
        }
    }

    bool channelHasRoom() const { return from_.channel.size < bounds_.channel; }

    // ---- The world ----

    void outside() {
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

    // ---- The poll thread ----

    void pollThread() {
        if (from_.recordReady) {
            add("poll thread takes a record", [](State& next) { takeRecord(next); });
        } else if (!from_.batch.empty()) {
            for (std::size_t i = 0; i < from_.workers.size(); ++i) {
                add("poll thread deals a socket out",
                    [i](State& next) { next.workers.at(i).queue.push(next.batch.pop()); });
            }
        } else if (!from_.channel.empty() || std::ranges::any_of(from_.endpoints, isReady)) {
            add("poll thread wakes", [](State& next) { wake(next); });
        }
    }

    static void wake(State& next) {
        next.recordReady = !next.channel.empty();
        for (Endpoint& endpoint : next.endpoints) {
            if (isReady(endpoint)) {
                endpoint.watch = Watch::fired;
                next.batch.push(endpoint.readNumber);
            }
        }
    }

    static void takeRecord(State& next) {
        next.recordReady = false;
        const Record record = next.channel.pop();
        const std::uint8_t owner = next.owner.at(record.number);
        if (owner != record.endpoint) {
            complain(next, Fault::usedAfterClose);
        }
        // A write descriptor that comes to be watched by mistake wakes a worker for nothing.
        if (owner != noOne &&
            (record.op == Op::remove || record.number == next.endpoints.at(owner).readNumber)) {
            apply(next, record, next.endpoints.at(owner));
        }
    }

    /// As the kernel does, whoever the descriptor belongs to by now.
    static void apply(State& next, const Record& record, Endpoint& endpoint) {
        if (record.op == Op::remove) {
            if (record.number == endpoint.readNumber) {
                endpoint.watch = Watch::none;
            }
            closeNumber(next, record.number);
        } else if ((record.op == Op::add) != (endpoint.watch == Watch::none)) {
            complain(next, Fault::refusedByEpoll);
        } else {
            endpoint.watch = Watch::armed;
        }
    }

    /// After an unasked close a record may miss, which the poll thread logs and survives.
    static void complain(State& next, Fault fault) {
        if (!next.closedUnasked) {
            next.fault = fault;
        }
    }

    // ---- Making an endpoint ----

    void creator() {
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
                add("its creator lets go", [this](State& next) {
                    next.creator = CreatorStep::idle;
                    letGo(next, next.creatorHolds);
                });
                break;
        }
    }

    bool mayCreate() const {
        const std::uint8_t made = from_.endpointsMade;
        return made < bounds_.endpoints &&
               (made < bounds_.labels ||
                !from_.endpoints.at(static_cast<std::size_t>(made - bounds_.labels)).filed);
    }

    static std::uint8_t openNumber(State& next, std::uint8_t index) {
        const auto free = std::ranges::find(next.owner, noOne);
        *free = index;
        return static_cast<std::uint8_t>(free - next.owner.begin());
    }

    static void create(State& next) {
        const std::uint8_t index = next.endpointsMade++;
        Endpoint& endpoint = next.endpoints.at(index);
        endpoint.created = true;
        endpoint.readNumber = openNumber(next, index);
        endpoint.writeNumber = openNumber(next, index);
        endpoint.filed = true;
        next.creatorHolds = index;
        next.creator = CreatorStep::registerSocket;
    }

    void registerSocket(std::uint8_t held) {
        if (channelHasRoom()) {
            add("its creator asks for it to be watched", [held](State& next) {
                next.channel.push({Op::add, next.endpoints.at(held).readNumber, held});
                next.creator = CreatorStep::markPrepared;
            });
        }
        mayFail("it cannot be set up", [held](State& next) {
            next.endpoints.at(held).filed = false;
            next.creator = CreatorStep::release;
        });
    }

    void forward(std::uint8_t held) {
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

    // ---- Taking one away ----

    void remover() {
        if (from_.removerHolds != noOne) {
            add("its remover lets go", [this](State& next) { letGo(next, next.removerHolds); });
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

    void deleter(std::uint8_t index) {
        const Endpoint& endpoint = from_.endpoints.at(index);
        if (endpoint.deletion == Deletion::writeSocket) {
            dispose(index, endpoint.writeNumber, Deletion::readSocket);
        } else if (endpoint.deletion == Deletion::readSocket) {
            dispose(index, endpoint.readNumber, Deletion::done);
        }
    }

    void dispose(std::uint8_t index, std::uint8_t number, Deletion then) {
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
            add("the deleter asks for a socket to be closed", [&](State& next) {
                next.endpoints.at(index).deletion = then;
                next.channel.push({Op::remove, number, index});
            });
        }
        // The one case of closing what may still be watched, or be about to be: whom that wakes,
        // or arms, until the poll thread has closed the other descriptor must do no harm.
        mayFail("the deleter cannot ask and closes", [&](State& next) {
            next.closedUnasked = true;
            closeHere(next);
        });
    }

    // ---- A worker ----

    void worker(std::size_t who) {
        const Worker& worker = from_.workers.at(who);
        switch (worker.step) {
            case WorkerStep::idle:
                beginNext(who);
                break;
            case WorkerStep::lookUp:
                add("worker looks the socket up", [who](State& next) { lookUp(next, who); });
                break;
            case WorkerStep::checkPrepared:
                checkPrepared(who);
                break;
            case WorkerStep::claim:
                add("worker claims the socket", [&](State& next) { claim(next, who); });
                break;
            case WorkerStep::receive:
                receive(who);
                break;
            case WorkerStep::process:
                process(who);
                break;
            case WorkerStep::giveBack:
                add("worker gives the claim back", [&](State& next) { giveBack(next, who); });
                break;
            case WorkerStep::armClaimed:
                armClaimed(who);
                break;
            case WorkerStep::release:
                add("worker lets go", [&](State& next) { release(next, who); });
                break;
            case WorkerStep::armDrained:
                armDrained(who);
                break;
            case WorkerStep::releaseDrained:
                add("worker lets a drained socket go",
                    [&](State& next) { releaseDrained(next, who); });
                break;
        }
    }

    void beginNext(std::size_t who) {
        if (!from_.workers.at(who).queue.empty()) {
            add("worker collects its queue", [who](State& next) {
                Worker& worker = next.workers.at(who);
                while (!worker.queue.empty()) {
                    worker.serving.push(worker.queue.pop());
                }
            });
        }
        if (!from_.workers.at(who).serving.empty()) {
            add("worker takes a socket", [who](State& next) {
                Worker& worker = next.workers.at(who);
                worker.number = worker.serving.pop();
                worker.step = WorkerStep::lookUp;
            });
        }
        if (!from_.workers.at(who).refused.empty()) {
            retryRefused(who);
        }
        if (!from_.workers.at(who).drained.empty() && rules_.armsAfterEachPass) {
            add("worker ends its pass",
                [who](State& next) { next.workers.at(who).step = WorkerStep::armDrained; });
        }
    }

    /// Done with the socket, but for the endpoint it holds.
    static void finish(Worker& worker, bool keep) {
        worker.keep = keep;
        worker.outcome = Outcome::drained;
        worker.step = WorkerStep::release;
    }

    static void lookUp(State& next, std::size_t who) {
        Worker& worker = next.workers.at(who);
        const std::uint8_t index = next.owner.at(worker.number);
        // A filed endpoint's descriptors are open, so the tables and the kernel agree on them.
        const bool found = index != noOne && next.endpoints.at(index).filed;
        if (found && next.endpoints.at(index).readNumber == worker.number) {
            worker.endpoint = index;
            worker.step = WorkerStep::checkPrepared;
        } else {
            worker.number = 0;
            worker.step = WorkerStep::idle;
        }
    }

    void checkPrepared(std::size_t who) {
        const std::uint8_t index = from_.workers.at(who).endpoint;
        const bool prepared = from_.endpoints.at(index).prepared;
        if (prepared || rules_.unprepared == Rules::Unprepared::serve) {
            add("worker may use the endpoint",
                [who](State& next) { next.workers.at(who).step = WorkerStep::claim; });
        } else if (rules_.unprepared == Rules::Unprepared::forget || !isBeingPrepared(index)) {
            add("worker gives an unprepared endpoint up",
                [who](State& next) { finish(next.workers.at(who), false); });
        }
        // Otherwise it waits.
    }

    bool isBeingPrepared(std::uint8_t index) const {
        return from_.creatorHolds == index && (from_.creator == CreatorStep::registerSocket ||
                                               from_.creator == CreatorStep::markPrepared);
    }

    void claim(State& next, std::size_t who) const {
        Worker& worker = next.workers.at(who);
        Serving& serving = next.endpoints.at(worker.endpoint).serving;
        if (!rules_.claimsSocket) {
            worker.step = WorkerStep::receive;
        } else if (serving == Serving::nobody) {
            serving = Serving::claimed;
            worker.step = WorkerStep::receive;
        } else {
            serving = Serving::moreWanted;
            finish(worker, false);
        }
        worker.armings = next.endpoints.at(worker.endpoint).armings;
        if (worker.step == WorkerStep::receive && isInBuffer(next.workers.at(1 - who), worker)) {
            next.fault = Fault::sharedBuffer;
        }
    }

    static bool isInBuffer(const Worker& other, const Worker& worker) {
        return other.endpoint == worker.endpoint &&
               (other.step == WorkerStep::receive || other.step == WorkerStep::process);
    }

    void receive(std::size_t who) {
        const std::uint8_t index = from_.workers.at(who).endpoint;
        if (from_.owner.at(from_.endpoints.at(index).readNumber) != index) {
            add("worker reads a socket", [](State& next) { next.fault = Fault::usedAfterClose; });
        } else if (from_.endpoints.at(index).data > 0) {
            add("worker receives a datagram", [who, index](State& next) {
                --next.endpoints.at(index).data;
                next.workers.at(who).step = WorkerStep::process;
            });
        } else {
            add("worker finds the socket drained",
                [&](State& next) { broughtNothing(next, who, Outcome::drained); });
        }
        for (const Outcome outcome :
             {Outcome::refused, Outcome::passingFailure, Outcome::lastingFailure}) {
            mayFail("worker fails to receive",
                    [&](State& next) { broughtNothing(next, who, outcome); });
        }
    }

    void broughtNothing(State& next, std::size_t who, Outcome outcome) const {
        Worker& worker = next.workers.at(who);
        worker.outcome = outcome;
        worker.step = rules_.givesBackBeforeArming ? WorkerStep::giveBack : WorkerStep::armClaimed;
    }

    void process(std::size_t who) {
        const std::uint8_t index = from_.workers.at(who).endpoint;
        const Change done = [who, index](State& next) {
            // Whatever was asked for meanwhile: it reads again anyway.
            next.endpoints.at(index).serving = Serving::nobody;
            finish(next.workers.at(who), true);
        };
        add("worker sends a reply", done);
        mayFail("worker fails to send and removes the endpoint", [&](State& next) {
            next.endpoints.at(index).filed = false;
            done(next);
        });
    }

    void giveBack(State& next, std::size_t who) const {
        Worker& worker = next.workers.at(who);
        Endpoint& endpoint = next.endpoints.at(worker.endpoint);
        const bool wanted = endpoint.serving == Serving::moreWanted && rules_.heedsOtherWorker;
        endpoint.serving = Serving::nobody;
        if (!rules_.givesBackBeforeArming) {
            finish(worker, wanted);
        } else if (worker.outcome == Outcome::passingFailure) {
            finish(worker, true);
        } else if (worker.outcome == Outcome::lastingFailure) {
            endpoint.filed = false;
            finish(worker, false);
        } else if (wanted) {
            finish(worker, true);
        } else if (worker.outcome == Outcome::refused && !rules_.armsAfterRefusedReceive) {
            finish(worker, false);
        } else {
            worker.drained.push(worker.endpoint);
            worker.drainedArmings.push(worker.armings);
            finish(worker, false);
        }
    }

    /// The order that the forwarder does not follow.
    void armClaimed(std::size_t who) {
        if (channelHasRoom()) {
            add("worker asks for the claimed socket to be armed", [who](State& next) {
                Worker& worker = next.workers.at(who);
                next.channel.push({Op::rearm, worker.number, worker.endpoint});
                worker.step = WorkerStep::giveBack;
            });
        }
    }

    void armDrained(std::size_t who) {
        const Worker& worker = from_.workers.at(who);
        const std::uint8_t index = worker.drained.items.at(worker.armed);
        const std::uint8_t number = from_.endpoints.at(index).readNumber;
        const auto goOn = [who](State& next) {
            Worker& it = next.workers.at(who);
            if (++it.armed == it.drained.size) {
                it.step = WorkerStep::releaseDrained;
            }
        };
        const std::uint8_t armings = worker.drainedArmings.items.at(worker.armed);
        if (rules_.armsOnce && from_.endpoints.at(index).armings != armings) {
            add("worker finds a drained socket armed since", goOn);
            return;
        }
        if (channelHasRoom()) {
            add("worker asks for a drained socket to be armed", [&](State& next) {
                ++next.endpoints.at(index).armings;
                next.channel.push({Op::rearm, number, index});
                goOn(next);
            });
        }
        mayFail("worker cannot ask for now", [&](State& next) {
            ++next.endpoints.at(index).armings;
            if (rules_.triesAgain) {
                next.workers.at(who).refused.push(index);
            }
            goOn(next);
        });
        mayFail("worker cannot ask and removes the endpoint", [&](State& next) {
            ++next.endpoints.at(index).armings;
            next.endpoints.at(index).filed = false;
            goOn(next);
        });
    }

    void retryRefused(std::size_t who) {
        const std::uint8_t index = from_.workers.at(who).refused.items.front();
        const auto letRefusedGo = [this, who](State& next) {
            disposeIfFree(next, next.workers.at(who).refused.pop());
        };
        if (!from_.endpoints.at(index).filed) {
            add("worker forgets a refused socket that was removed", letRefusedGo);
        } else if (channelHasRoom()) {
            add("worker asks again for a refused socket to be armed", [&](State& next) {
                next.channel.push({Op::rearm, next.endpoints.at(index).readNumber, index});
                letRefusedGo(next);
            });
        }
    }

    void releaseDrained(State& next, std::size_t who) const {
        Worker& worker = next.workers.at(who);
        worker.drainedArmings.pop();
        disposeIfFree(next, worker.drained.pop());
        if (--worker.armed == 0) {
            worker.step = WorkerStep::idle;
        }
    }

    void release(State& next, std::size_t who) const {
        Worker& worker = next.workers.at(who);
        if (worker.endpoint != noOne) {
            letGo(next, worker.endpoint);
        }
        if (worker.keep) {
            worker.serving.push(worker.number);
        }
        worker.keep = false;
        worker.number = 0;
        worker.step = WorkerStep::idle;
    }

    const State& from_;
    const Rules& rules_;
    const Bounds& bounds_;
    std::vector<Transition>& out_;
};

/// Whether the worker has yet to read the socket or to ask for it to be armed.
bool isAtIt(const Worker& worker, std::uint8_t endpoint, std::uint8_t number) {
    const bool onItsList = worker.queue.contains(number) || worker.serving.contains(number);
    const bool aboutToLook = worker.step == WorkerStep::lookUp && worker.number == number;
    const bool inHand =
        worker.endpoint == endpoint && (worker.step != WorkerStep::release || worker.keep);
    const auto& drained = worker.drained.items;
    const bool toBeArmed =
        std::find(drained.begin() + worker.armed, drained.begin() + worker.drained.size,
                  endpoint) != drained.begin() + worker.drained.size;
    return onItsList || aboutToLook || inHand || toBeArmed || worker.refused.contains(endpoint);
}

}  // namespace

std::vector<Transition> stepsFrom(const State& state, const Rules& rules, const Bounds& bounds) {
    std::vector<Transition> steps;
    Stepper(state, rules, bounds, steps).all();
    return steps;
}

bool isCovered(const State& state, std::uint8_t index) {
    const Endpoint& endpoint = state.endpoints.at(index);
    const auto onItsWay = [index](const Record& record) {
        return record.endpoint == index && (record.op == Op::add || record.op == Op::rearm);
    };
    const auto& records = state.channel.items;
    return endpoint.watch == Watch::armed || state.batch.contains(endpoint.readNumber) ||
           std::any_of(records.begin(), records.begin() + state.channel.size, onItsWay) ||
           std::ranges::any_of(state.workers, [&](const Worker& worker) {
               return isAtIt(worker, index, endpoint.readNumber);
           });
}

bool isAtRest(const State& state) {
    const auto idle = [](const Worker& it) {
        return it.step == WorkerStep::idle && it.queue.empty() && it.serving.empty() &&
               it.drained.empty() && it.refused.empty();
    };
    if (!std::ranges::all_of(state.workers, idle) || state.creator != CreatorStep::idle ||
        state.removerHolds != noOne || !state.channel.empty()) {
        return false;
    }
    for (std::uint8_t i = 0; i < state.endpointsMade; ++i) {
        const Endpoint& endpoint = state.endpoints.at(i);
        const bool good =
            endpoint.filed
                ? endpoint.prepared && endpoint.data == 0 && endpoint.watch == Watch::armed
                : endpoint.deletion == Deletion::done && !socketIsOpen(state, i);
        if (!good) {
            return false;
        }
    }
    return true;
}

}  // namespace vesk::model
