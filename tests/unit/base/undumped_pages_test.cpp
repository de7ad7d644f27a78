#include "base/undumped_pages.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <sstream>
#include <string>

namespace vesk {
namespace {

/// The kernel's two-letter flags of the mapping that contains the address; empty if there is none.
std::string flagsOf(const void* place) {
    const auto address = reinterpret_cast<std::uintptr_t>(place);
    std::ifstream file("/proc/self/smaps");
    bool holdsAddress = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream text(line);
        std::uintptr_t first = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        if (text >> std::hex >> first >> dash >> end && dash == '-') {
            holdsAddress = first <= address && address < end;
        } else if (holdsAddress && line.starts_with("VmFlags:")) {
            return line;
        }
    }
    return {};
}

/// Whether a page that is excluded without UndumpedPages is shown as excluded.
bool exclusionIsShown() {
    constexpr std::size_t pageSize = 4096;
    void* const page =
        mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(madvise(page, pageSize, MADV_DONTDUMP), 0);
    const bool shown = flagsOf(page).find(" dd") != std::string::npos;
    munmap(page, pageSize);
    return shown;
}

TEST(UndumpedPagesTest, AreExcludedFromCoreFiles) {
    if (!exclusionIsShown()) {
        GTEST_SKIP() << "this system, such as an emulator, does not show which pages are excluded";
    }
    UndumpedPages pages;
    constexpr std::size_t pageBytes = 10000;
    auto* const memory = static_cast<char*>(pages.allocate(pageBytes));
    std::memset(memory, 1, pageBytes);
    EXPECT_NE(flagsOf(memory).find(" dd"), std::string::npos);
    EXPECT_NE(flagsOf(memory + pageBytes - 1).find(" dd"), std::string::npos);
    pages.deallocate(memory, pageBytes);
}

TEST(UndumpedPagesTest, AreUnmappedWhenDeallocated) {
    UndumpedPages pages;
    void* const memory = pages.allocate(1);
    EXPECT_NE(flagsOf(memory), "");
    pages.deallocate(memory, 1);
    EXPECT_EQ(flagsOf(memory), "");
}

TEST(UndumpedPagesTest, ThrowBadAllocWhenMemoryIsShort) {
    UndumpedPages pages;
    EXPECT_THROW(static_cast<void>(pages.allocate(std::numeric_limits<std::ptrdiff_t>::max())),
                 std::bad_alloc);
}

TEST(UndumpedPagesTest, CanBeFreedByAnotherResourceOfTheSameType) {
    const UndumpedPages pages;
    const UndumpedPages others;
    EXPECT_TRUE(pages.is_equal(others));
    EXPECT_FALSE(pages.is_equal(*std::pmr::new_delete_resource()));
}

}  // namespace
}  // namespace vesk
