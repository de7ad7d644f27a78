// Bytes that are wiped when they are destroyed: keys, and values computed with them. Any thread;
// values are not shared.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vesk {

/// An array that its destructor overwrites. Copies are overwritten too.
template <std::size_t Size>
class SecretBytes : public std::array<std::uint8_t, Size> {
 public:
    SecretBytes() = default;
    ~SecretBytes() { explicit_bzero(this->data(), Size); }
    SecretBytes(const SecretBytes&) = default;
    SecretBytes& operator=(const SecretBytes&) = default;
};

}  // namespace vesk
