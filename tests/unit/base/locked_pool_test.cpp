#include "base/locked_pool.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <memory_resource>
#include <thread>

namespace vesk {
namespace {

/// Counts the bytes that the pool takes from the system.
class CountingResource : public std::pmr::memory_resource {
 public:
    std::size_t taken() const { return taken_; }

 private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        taken_ += bytes;
        return std::pmr::new_delete_resource()->allocate(bytes, alignment);
    }
    void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override {
        std::pmr::new_delete_resource()->deallocate(memory, bytes, alignment);
    }
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        return this == &other;
    }

    std::size_t taken_ = 0;
};

constexpr std::size_t size = 1400;
using Pieces = std::array<void*, 500>;

Pieces takeOnAnotherThread(LockedPool& pool) {
    Pieces pieces{};
    std::thread([&] {
        for (void*& piece : pieces) {
            piece = pool.allocate(size);
        }
    }).join();
    return pieces;
}

void giveBack(LockedPool& pool, const Pieces& pieces) {
    for (void* const piece : pieces) {
        pool.deallocate(piece, size);
    }
}

TEST(LockedPoolTest, ReusesTheMemoryOfAThreadThatHasEnded) {
    CountingResource system;
    LockedPool pool(&system);
    giveBack(pool, takeOnAnotherThread(pool));
    const std::size_t taken = system.taken();
    for (int thread = 0; thread < 5; ++thread) {
        giveBack(pool, takeOnAnotherThread(pool));
    }
    EXPECT_EQ(system.taken(), taken);
}

TEST(LockedPoolTest, CanBeUsedByTwoThreadsAtOnce) {
    CountingResource system;
    LockedPool pool(&system);
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            pool.deallocate(pool.allocate(size), size);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        pool.deallocate(pool.allocate(size), size);
    }
    other.join();
}

}  // namespace
}  // namespace vesk
