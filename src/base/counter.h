// Statistics counters: incremented by the threads of the datapath, read by the "stats" command on
// the main thread at the same time.
#pragma once

#include <atomic>
#include <cstdint>

namespace vesk {

/// A counter that one thread at a time increments and any thread reads. The relaxed load and store
/// compile to a plain increment, without an atomic read-modify-write, and are not a data race.
class Counter {
 public:
    void increment() { add(1); }
    void add(std::uint64_t amount) {
        value_.store(value_.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
    }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
    std::atomic<std::uint64_t> value_{0};
};

/// A counter that several threads increment at once. A plain increment would lose counts, and the
/// counters of a socket would no longer add up to the datagrams that it received.
class SharedCounter {
 public:
    void increment() { add(1); }
    void add(std::uint64_t amount) { value_.fetch_add(amount, std::memory_order_relaxed); }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
    std::atomic<std::uint64_t> value_{0};
};

}  // namespace vesk
