// Preloaded into a process, counts its allocations. Those by libcrypto, which allocates when it
// resets an HMAC context, are counted separately. The file named by VESK_ALLOCATION_COUNTS holds
// both counts as native 64-bit numbers: allocations by libcrypto, then all others.
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

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

struct Counts {
    std::atomic<std::uint64_t> libcrypto;
    std::atomic<std::uint64_t> others;
};

struct CodeRange {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool holds(const void* address) const {
        const auto place = reinterpret_cast<std::uintptr_t>(address);
        return begin <= place && place < end;
    }
};

int findLibcrypto(dl_phdr_info* object, std::size_t /*size*/, void* found) {
    if (std::string_view(object->dlpi_name).find("libcrypto.so") == std::string_view::npos) {
        return 0;
    }
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
            *static_cast<CodeRange*>(found) = {begin, begin + segment.p_memsz};
        }
    }
    return 1;
}

Counts* openCounts() {
    const char* path = std::getenv("VESK_ALLOCATION_COUNTS");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<Counts*>(memory);
}

// Written once, before main. Earlier allocations are not counted.
CodeRange libcrypto;
Counts* counts = nullptr;

__attribute__((constructor)) void begin() {
    dl_iterate_phdr(findLibcrypto, &libcrypto);
    counts = openCounts();
}

void count(const void* caller) {
    if (counts != nullptr) {
        (libcrypto.holds(caller) ? counts->libcrypto : counts->others)
            .fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    count(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) {
    count(__builtin_return_address(0));
    return __libc_calloc(number, size);
}

void* realloc(void* old, std::size_t size) {
    count(__builtin_return_address(0));
    return __libc_realloc(old, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    count(__builtin_return_address(0));
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    count(__builtin_return_address(0));
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    count(__builtin_return_address(0));
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

}  // extern "C"
