// Memory that is left out of core files, for tables that hold secrets. Pools of the standard
// library allocate from it. Any thread: it has no state, and so no lock.
#pragma once

#include <cstddef>
#include <memory_resource>

namespace vesk {

/// Allocates whole pages; meant as the upstream resource of a pool. Throws std::bad_alloc if the
/// system has no memory. If the kernel cannot exclude the pages from core files, they are allocated
/// nevertheless.
class UndumpedPages : public std::pmr::memory_resource {
    void* do_allocate(std::size_t bytes, std::size_t alignment) override;
    void do_deallocate(void* pages, std::size_t bytes, std::size_t alignment) override;
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override;
};

}  // namespace vesk
