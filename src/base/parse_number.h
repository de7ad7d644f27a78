// Parses a whole text as a number, in the syntax of strtoul and strtol with base 0: decimal,
// hexadecimal after "0x", octal after a leading "0". Leading white space and a sign are allowed.
// Called for arguments and for attributes of commands. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vesk {

/// The number that the whole text denotes. None if other characters follow the number or if it is
/// out of range. An empty text is 0. A negative number wraps, as in strtoul.
///
/// errno is not cleared first: the largest value is rejected if errno is already ERANGE.
std::optional<std::uint64_t> parseUnsigned(const std::string& text);

/// As parseUnsigned, and none if the number does not fit in 32 bits.
std::optional<std::uint32_t> parseUnsigned32(const std::string& text);

/// As parseUnsigned, for signed numbers. A number below the range is read as the smallest number.
std::optional<std::int64_t> parseSigned(const std::string& text);

}  // namespace vesk
