// Byte strings as the tests write them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace vesk {

using Bytes = std::vector<std::uint8_t>;

/// From pairs of hexadecimal digits; blanks are for the eye.
Bytes fromHex(std::string_view text);

Bytes toBytes(std::span<const std::uint8_t> bytes);

}  // namespace vesk
