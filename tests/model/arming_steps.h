// The steps of the model: what each thread may do next in a state. Used only by the model. The file
// of a step is named after the thread that takes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "arming_model.h"

namespace vesk::model {

/// Whether a descriptor of the endpoint's socket is open.
bool socketIsOpen(const State& state, std::uint8_t index);
/// Whether any thread or table holds a reference to the endpoint.
bool isHeld(const State& state, std::uint8_t index, const Rules& rules);
bool hasNoUnsentReply(const Worker& worker);
void closeNumber(State& state, std::uint8_t number);

/// Collects the transitions from one state.
class Stepper {
 public:
    Stepper(const State& from, const Rules& rules, const Bounds& bounds,
            std::vector<Transition>& out)
        : from_(from), rules_(rules), bounds_(bounds), out_(out) {}

    void all();

 private:
    using Change = std::function<void(State&)>;

    void add(std::string_view name, const Change& change, bool fromOutside = false);
    void mayFail(std::string_view name, const Change& change);
    void letGo(State& next, std::uint8_t& holder) const;
    void disposeIfFree(State& next, std::uint8_t index) const;
    bool channelHasRoom() const;

    // The world.

    void outside();

    // The poll thread.

    void pollThread();
    static void wake(State& next);
    void takeRecord(State& next) const;
    void apply(State& next, const Record& record, Endpoint& endpoint) const;
    static void complain(State& next, Fault fault);

    // Creating an endpoint.

    void creator();
    bool mayCreate() const;
    static std::uint8_t openNumber(State& next, std::uint8_t index);
    static void create(State& next);
    void registerSocket(std::uint8_t held);
    void forward(std::uint8_t held);

    // Removing an endpoint.

    void remover();
    void deleter(std::uint8_t index);
    void dispose(std::uint8_t index, std::uint8_t number, Deletion then);

    // A worker.

    void worker(std::size_t who);
    void beginNext(std::size_t who);
    void mayEndPass(std::size_t who);
    static void lookUp(State& next, std::size_t who);
    void checkPrepared(std::size_t who);
    bool isBeingPrepared(std::uint8_t index) const;
    void claim(State& next, std::size_t who) const;
    void receive(std::size_t who);
    static void take(State& next, std::size_t who, std::uint8_t datagrams, Outcome outcome);
    void handle(State& next, std::size_t who) const;
    static void holdReplies(State& next, std::size_t who);
    void addDrained(State& next, std::size_t who) const;
    void finish(State& next, std::size_t who, bool again) const;

    // A worker at the end of its pass.

    void endOfPass(std::size_t who);
    void sendReplies(std::size_t who);
    void sendAll(State& next, std::size_t who) const;
    void afterSending(Worker& worker) const;
    void beginDrained(Worker& worker) const;
    void takeArming(State& next, std::size_t who) const;
    void endClaim(State& next, std::size_t who) const;
    void nextDrained(State& next, std::size_t who) const;
    void requestArming(std::size_t who);
    void nextToArm(State& next, std::size_t who) const;
    void afterArming(Worker& worker) const;
    void retryRefused(std::size_t who);
    void release(State& next, std::size_t who, bool all) const;

    const State& from_;
    const Rules& rules_;
    const Bounds& bounds_;
    std::vector<Transition>& out_;
};

}  // namespace vesk::model
