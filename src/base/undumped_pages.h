// Memory that a core file leaves out, for tables that hold secrets. The memory resources of the
// standard library are put on top of it; it has no state and no lock of its own.
#pragma once

#include <cstddef>
#include <memory_resource>

namespace vesk {

/// Allocates whole pages; meant as the upstream resource of a pool. Throws std::bad_alloc if the
/// system has none. If the kernel cannot exclude pages from core files, they are allocated all the
/// same.
class UndumpedPages : public std::pmr::memory_resource {
    void* do_allocate(std::size_t bytes, std::size_t alignment) override;
    void do_deallocate(void* pages, std::size_t bytes, std::size_t alignment) override;
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override;
};

}  // namespace vesk
