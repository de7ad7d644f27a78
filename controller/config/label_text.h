// Formats labels: in hex in commands, metrics and messages, as in most configuration files.
// Called by commands/command_lines and metrics/exposition. Any thread.
#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <string>

namespace vesk::controller {

/// "0x10001".
inline std::string labelText(std::uint32_t label) {
    std::array<char, sizeof label * 2> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), label, 16).ptr;
    return "0x" + std::string(digits.begin(), end);
}

/// "0x10001/65537": some messages of the forwarder contain only the decimal number.
inline std::string labelInBothForms(std::uint32_t label) {
    return labelText(label) + "/" + std::to_string(label);
}

}  // namespace vesk::controller
