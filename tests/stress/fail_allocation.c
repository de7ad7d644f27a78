/* Preloaded before the C library, makes one allocation of one thread fail, as on a machine without
   memory. VESK_ALLOCATION_FAULT names a file of three numbers that the test and this code share. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

struct fault {
    _Atomic int64_t thread;    /* the thread that fails; 0 for none, -1 for the next to allocate */
    _Atomic int64_t countdown; /* the number of its allocation that fails, from 1 */
    _Atomic int64_t struck;    /* the number of failures so far */
};

static struct fault none;
static struct fault* fault = &none;

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);

__attribute__((constructor)) static void share_fault(void) {
    const char* path = getenv("VESK_ALLOCATION_FAULT");
    const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    void* shared = mmap(NULL, sizeof(struct fault), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (shared != MAP_FAILED) {
        fault = shared;
    }
}

static int fails(void) {
    const int64_t thread = atomic_load_explicit(&fault->thread, memory_order_acquire);
    if (thread == 0 || (thread != -1 && thread != gettid()) ||
        atomic_fetch_sub(&fault->countdown, 1) != 1) {
        return 0;
    }
    atomic_fetch_add(&fault->struck, 1);
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails() ? NULL : __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
    return fails() ? NULL : __libc_realloc(old, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void** result, size_t alignment, size_t size) {
    if (fails()) {
        return ENOMEM;
    }
    *result = __libc_memalign(alignment, size);
    return *result ? 0 : ENOMEM;
}
