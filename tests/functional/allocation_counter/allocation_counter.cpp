// Preloaded into a process, counts its allocations, those of libraries included. The file named by
// VESK_ALLOCATION_COUNT holds the count as a native 64-bit number.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's internal names of its allocator, for libraries that replace the public ones.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)

namespace {

using Count = std::atomic<std::uint64_t>;

Count* openCount() {
    const char* path = std::getenv("VESK_ALLOCATION_COUNT");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<Count*>(memory);
}

// Written once, before main. Earlier allocations are not counted.
Count* allocations = nullptr;

__attribute__((constructor)) void begin() {
    allocations = openCount();
}

void count() {
    if (allocations != nullptr) {
        allocations->fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    count();
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) {
    count();
    return __libc_calloc(number, size);
}

void* realloc(void* old, std::size_t size) {
    count();
    return __libc_realloc(old, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    count();
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

}  // extern "C"
