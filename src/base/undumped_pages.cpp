#include "base/undumped_pages.h"

#include <sys/mman.h>

#include <new>

namespace vesk {

// The kernel rounds lengths up to whole pages, and no type needs a larger alignment than a page.

void* UndumpedPages::do_allocate(std::size_t bytes, std::size_t /*alignment*/) {
    void* const pages =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    static_cast<void>(madvise(pages, bytes, MADV_DONTDUMP));
    return pages;
}

void UndumpedPages::do_deallocate(void* pages, std::size_t bytes, std::size_t /*alignment*/) {
    munmap(pages, bytes);
}

bool UndumpedPages::do_is_equal(const std::pmr::memory_resource& other) const noexcept {
    return dynamic_cast<const UndumpedPages*>(&other) != nullptr;
}

}  // namespace vesk
