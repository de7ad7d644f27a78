// A memory pool with its own lock, for containers whose elements are destroyed after the
// container's lock is released. Any thread.
//
// The standard library's synchronized pool is not used: it keeps separate memory for each thread,
// and never reuses the memory of threads that have ended.
#pragma once

#include <cstddef>
#include <memory_resource>

#include "base/sync.h"

namespace vesk {

class LockedPool : public std::pmr::memory_resource {
 public:
    /// Takes memory in large blocks from `upstream`, which must outlive the pool.
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
