// Helpers with which unit tests and fuzz targets write byte strings.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

using Bytes = std::vector<std::uint8_t>;

/// Bytes from pairs of hexadecimal digits; blanks between them are ignored.
Bytes fromHex(std::string_view text);
std::string toHex(std::span<const std::uint8_t> bytes);

Bytes toBytes(std::span<const std::uint8_t> bytes);
Bytes toBytes(std::string_view text);

Bytes join(std::initializer_list<std::span<const std::uint8_t>> parts);

}  // namespace vesk
