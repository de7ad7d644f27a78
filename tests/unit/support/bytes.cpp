#include "support/bytes.h"

#include <charconv>
#include <string>

namespace vesk {

Bytes fromHex(std::string_view text) {
    std::string digits(text);
    std::erase(digits, ' ');
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        std::uint8_t byte = 0;
        std::from_chars(digits.data() + i, digits.data() + i + 2, byte, 16);
        bytes.push_back(byte);
    }
    return bytes;
}

Bytes toBytes(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace vesk
