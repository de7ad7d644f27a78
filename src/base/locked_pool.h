// A pool of memory with a lock, for containers whose elements are destroyed outside the container's
// own lock. Any thread.
//
// Not the standard library's synchronized pool: that one keeps memory apart for each thread, and
// what a thread that has ended allocated is never used again.
#pragma once

#include <cstddef>
#include <memory_resource>

#include "base/sync.h"

namespace vesk {

class LockedPool : public std::pmr::memory_resource {
 public:
    /// Takes large pieces from `upstream`, which lives longer.
    explicit LockedPool(std::pmr::memory_resource* upstream) : pool_(upstream) {}

 private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        const MutexLock lock(mutex_);
        return pool_.allocate(bytes, alignment);
    }
    void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override {
        const MutexLock lock(mutex_);
        pool_.deallocate(memory, bytes, alignment);
    }
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        return this == &other;
    }

    Mutex mutex_;
    std::pmr::unsynchronized_pool_resource pool_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk
