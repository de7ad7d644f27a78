#include "support/bytes.h"

#include <charconv>

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

std::string toHex(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

Bytes toBytes(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes toBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes join(std::initializer_list<std::span<const std::uint8_t>> parts) {
    Bytes whole;
    for (const std::span<const std::uint8_t> part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

}  // namespace vesk
