#include "base/parse_number.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace vesk {

namespace {

// The C library stops at an embedded NUL, so such a text counts as not fully read.
bool isWholeText(const std::string& text, const char* end) {
    return end == text.c_str() + text.size();
}

}  // namespace

std::optional<std::uint64_t> parseUnsigned(const std::string& text) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 0);
    const bool outOfRange = value == std::numeric_limits<unsigned long>::max() && errno == ERANGE;
    if (!isWholeText(text, end) || outOfRange) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint32_t> parseUnsigned32(const std::string& text) {
    const std::optional<std::uint64_t> value = parseUnsigned(text);
    if (!value || *value > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*value);
}

std::optional<std::int64_t> parseSigned(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    const bool outOfRange = value == std::numeric_limits<long>::max() && errno == ERANGE;
    if (!isWholeText(text, end) || outOfRange) {
        return std::nullopt;
    }
    return value;
}

}  // namespace vesk
