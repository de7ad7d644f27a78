// Locks built on those of POSIX, with their scope guards, annotated for clang's thread-safety
// analysis. Any thread.
//
// Those of the standard library are not used: a thread must not be cancelled while it waits for the
// library's semaphore, and its shared lock may starve writers.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "base/timespec.h"

// Only clang has these attributes, so they are macros. Their names follow clang's documentation.
#if defined(__clang__)
#define VESK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VESK_THREAD_ATTRIBUTE(x)
#endif
#define VESK_CAPABILITY(x) VESK_THREAD_ATTRIBUTE(capability(x))
#define VESK_SCOPED_CAPABILITY VESK_THREAD_ATTRIBUTE(scoped_lockable)
#define VESK_GUARDED_BY(x) VESK_THREAD_ATTRIBUTE(guarded_by(x))
#define VESK_ACQUIRE(...) VESK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VESK_ACQUIRE_SHARED(...) VESK_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define VESK_RELEASE(...) VESK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VESK_RELEASE_GENERIC(...) VESK_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define VESK_REQUIRES(...) VESK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VESK_REQUIRES_SHARED(...) VESK_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define VESK_EXCLUDES(...) VESK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

namespace vesk {

class VESK_CAPABILITY("mutex") Mutex {
 public:
    Mutex() = default;
    ~Mutex() { pthread_mutex_destroy(&mutex_); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() VESK_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() VESK_RELEASE() { pthread_mutex_unlock(&mutex_); }

 private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class VESK_SCOPED_CAPABILITY MutexLock {
 public:
    explicit MutexLock(Mutex& mutex) VESK_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() VESK_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

 private:
    Mutex& mutex_;
};

/// Shared by readers, exclusive for a writer. A waiting writer is served before new readers: the
/// datapath reads without pause, and a command that writes might otherwise wait forever. A thread
/// that holds the lock for reading must not take it again: with a writer waiting it would deadlock.
class VESK_CAPABILITY("shared_mutex") RwLock {
 public:
    RwLock() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    ~RwLock() { pthread_rwlock_destroy(&lock_); }
    RwLock(const RwLock&) = delete;
    RwLock& operator=(const RwLock&) = delete;

    void lockRead() VESK_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&lock_); }
    void lockWrite() VESK_ACQUIRE() { pthread_rwlock_wrlock(&lock_); }
    void unlock() VESK_RELEASE_GENERIC() { pthread_rwlock_unlock(&lock_); }

 private:
    pthread_rwlock_t lock_;
};

class VESK_SCOPED_CAPABILITY ReadLock {
 public:
    explicit ReadLock(RwLock& lock) VESK_ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lockRead(); }
    ~ReadLock() VESK_RELEASE_GENERIC() { lock_.unlock(); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

 private:
    RwLock& lock_;
};

class VESK_SCOPED_CAPABILITY WriteLock {
 public:
    explicit WriteLock(RwLock& lock) VESK_ACQUIRE(lock) : lock_(lock) { lock_.lockWrite(); }
    ~WriteLock() VESK_RELEASE() { lock_.unlock(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

 private:
    RwLock& lock_;
};

/// Lets one thread sleep until another thread posts. Unlike a condition variable it is independent
/// of the lock that guards the awaited state: if the post is made after that lock is released, the
/// woken thread can work at once.
class WakeUp {
 public:
    WakeUp() { sem_init(&posts_, 0, 0); }
    ~WakeUp() { sem_destroy(&posts_); }
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// Waits for a post. Returns at once if an earlier post has not been consumed. A cancellation
    /// point.
    void wait() {
        while (sem_wait(&posts_) != 0) {
            // A signal interrupted it.
        }
    }
    /// As above, but returns after `longest` at the latest. A cancellation point.
    void waitFor(std::chrono::nanoseconds longest) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const timespec until = toTimespec(toDuration(now) + longest);
        while (sem_clockwait(&posts_, CLOCK_MONOTONIC, &until) != 0 && errno == EINTR) {
            // A signal interrupted it.
        }
    }
    void post() { sem_post(&posts_); }

 private:
    sem_t posts_;
};

}  // namespace vesk
