// Statistics counters that the report reads while the datapath runs.
#pragma once

#include <atomic>
#include <cstdint>

namespace vesk {

/// Counted by one thread (at a time), read by any. The machine code of a plain increment: no
/// read-modify-write, and no data race in the language.
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

/// Counted by several threads at once: a plain increment would lose some, and the counters of a
/// socket could no longer be added up to the datagrams that it received.
class SharedCounter {
 public:
    void increment() { value_.fetch_add(1, std::memory_order_relaxed); }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
    std::atomic<std::uint64_t> value_{0};
};

}  // namespace vesk
