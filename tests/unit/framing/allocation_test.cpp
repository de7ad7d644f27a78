// The library allocates for its keys only. This program replaces libcrypto's allocator and C++'s
// operator new by ones that count.
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "support/library_key.h"

namespace vesk {
namespace {

std::atomic<int> allocations{0};

void* countedMalloc(std::size_t size, const char* /*file*/, int /*line*/) {
    ++allocations;
    return std::malloc(size);
}

void* countedRealloc(void* old, std::size_t size, const char* /*file*/, int /*line*/) {
    ++allocations;
    return std::realloc(old, size);
}

void countedFree(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

/// Before anything uses libcrypto; it takes no other allocator later.
const bool replacesAllocator =
    CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;

/// The number of allocations that `action` causes.
template <typename Action>
int allocationsOf(const Action& action) {
    const int before = allocations;
    action();
    return allocations - before;
}

class FramingAllocationTest : public testing::TestWithParam<const char*> {
 protected:
    const TestKey key{GetParam(), Bytes(100, 0x42)};
    const TestKey other{GetParam(), Bytes(20, 0x43)};
};

TEST_P(FramingAllocationTest, IsNoneForDatagrams) {
    ASSERT_TRUE(replacesAllocator);
    const LibraryKey first = libraryKey(key);
    const LibraryKey second = libraryKey(other);
    const std::array<std::uint8_t, 2000> payload{};
    std::array<std::uint8_t, VESK_FRAMING_MAX_DATAGRAM> buffer{};
    for (const auto version : {VESK_FRAMING_UDPV1, VESK_FRAMING_UDPV2}) {
        const vesk_framing_content content{7, nullptr, 0, payload.data(), payload.size()};
        vesk_framing_fields fields{};
        std::size_t length = 0;
        std::array<vesk_framing_result, 4> results{};
        EXPECT_EQ(allocationsOf([&] {
                      results[0] = vesk_framing_make(version, &content, first.get(), buffer.data(),
                                                     buffer.size(), &length);
                      results[1] = vesk_framing_check(version, buffer.data(), length, first.get(),
                                                      nullptr, &fields);
                      results[2] =
                          vesk_framing_relabel(version, buffer.data(), length, 8, second.get());
                      results[3] = vesk_framing_check(version, buffer.data(), length, first.get(),
                                                      second.get(), &fields);
                  }),
                  0);
        EXPECT_EQ(results, (std::array<vesk_framing_result, 4>{}));
        EXPECT_EQ(fields.match, VESK_FRAMING_MATCH_OLD_KEY);
    }
}

/// The counter would notice an allocation.
TEST_P(FramingAllocationTest, IsCountedForKeys) {
    EXPECT_GT(allocationsOf([this] { libraryKey(key); }), 0);
}

INSTANTIATE_TEST_SUITE_P(Digests, FramingAllocationTest, testing::Values("sha1", "sha256"));

}  // namespace
}  // namespace vesk

// Of the whole program, and of the libraries that it loads.

void* operator new(std::size_t size) {
    ++vesk::allocations;
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    ++vesk::allocations;
    return std::malloc(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
