// Reads a value from bytes that may not be aligned for it. Any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace vesk {

/// The value at the start of the bytes, in the layout and byte order of this host. There must be at
/// least as many bytes as the value has.
template <typename Value>
Value readAt(std::span<const std::uint8_t> bytes) {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

}  // namespace vesk
