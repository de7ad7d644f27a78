// A value that is read for each datagram and written rarely: a sequence lock. Any thread.
//
// A reader takes no lock and writes to no shared memory, so readers do not slow each other down. It
// notices by the sequence number that a writer was active, and then waits for that writer.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include "base/sync.h"

namespace vesk {

template <typename Value>
class Sequenced {
 public:
    static_assert(std::is_trivially_copyable_v<Value>, "the value is copied word by word");

    explicit Sequenced(const Value& value = {}) { write(value); }
    Sequenced(const Sequenced&) = delete;
    Sequenced& operator=(const Sequenced&) = delete;

    /// The value that was stored last. All of it comes from one call of `store`.
    Value load() const VESK_EXCLUDES(writers_) {
        if (const std::optional<Value> value = tryLoad()) {
            return *value;
        }
        const MutexLock lock(writers_);
        return tryLoad().value();
    }

    /// Starts to load the value into the processor's cache.
    void prefetch() const {
        constexpr std::size_t cacheLine = 64;
        for (std::size_t at = 0; at < sizeof(*this); at += cacheLine) {
            __builtin_prefetch(reinterpret_cast<const char*>(this) + at);
        }
    }

    void store(const Value& value) VESK_EXCLUDES(writers_) {
        const MutexLock lock(writers_);
        write(value);
    }

 private:
    static constexpr std::size_t wordCount =
        (sizeof(Value) + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);
    using Words = std::array<std::uint64_t, wordCount>;

    /// None if a writer was active meanwhile.
    std::optional<Value> tryLoad() const {
        const std::uint32_t before = sequence_.load(std::memory_order_acquire);
        if (before % 2 != 0) {
            return std::nullopt;
        }
        Words words;
        for (std::size_t i = 0; i < wordCount; ++i) {
            // A word of a later write would make the next load of the sequence number return what
            // that writer stored first.
            words[i] = words_[i].load(std::memory_order_acquire);
        }
        if (sequence_.load(std::memory_order_relaxed) != before) {
            return std::nullopt;
        }
        Value value;
        std::memcpy(static_cast<void*>(&value), words.data(), sizeof(value));
        return value;
    }

    void write(const Value& value) {
        Words words{};
        std::memcpy(words.data(), static_cast<const void*>(&value), sizeof(value));
        const std::uint32_t before = sequence_.load(std::memory_order_relaxed);
        // Odd while the words are written.
        sequence_.store(before + 1, std::memory_order_relaxed);
        for (std::size_t i = 0; i < wordCount; ++i) {
            words_[i].store(words[i], std::memory_order_release);
        }
        sequence_.store(before + 2, std::memory_order_release);
    }

    std::atomic<std::uint32_t> sequence_{0};
    std::array<std::atomic<std::uint64_t>, wordCount> words_;
    mutable Mutex writers_;
};

}  // namespace vesk
