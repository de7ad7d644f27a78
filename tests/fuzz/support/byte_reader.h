// Reads an input from its beginning. A read after its end returns zeros or nothing, so that every
// input is valid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vesk::fuzz {

using View = std::span<const std::uint8_t>;

class ByteReader {
 public:
    explicit ByteReader(View bytes) : bytes_(bytes) {}

    bool empty() const { return bytes_.empty(); }
    std::uint8_t byte();
    /// Big-endian.
    std::uint16_t number16();
    /// At most the remaining bytes.
    View take(std::size_t count);
    View rest() { return take(bytes_.size()); }

 private:
    View bytes_;
};

}  // namespace vesk::fuzz
