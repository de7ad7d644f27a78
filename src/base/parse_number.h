// Whole-text numbers in the syntax of strtoul and strtol with base 0: decimal, "0x" hexadecimal and
// leading-"0" octal, leading white space and a sign allowed. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vesk {

/// The number the whole text stands for; none where anything follows it or it is out of range.
/// An empty text is 0. A negative text wraps, as strtoul has it.
///
/// errno is not cleared first: the greatest value is refused whenever errno holds ERANGE.
std::optional<std::uint64_t> parseUnsigned(const std::string& text);

/// As above, and none where the number does not fit 32 bits.
std::optional<std::uint32_t> parseUnsigned32(const std::string& text);

/// As parseUnsigned, for signed numbers. One below the range is read as the least number.
std::optional<std::int64_t> parseSigned(const std::string& text);

}  // namespace vesk
