#include "app/arguments.h"

#include <string>
#include <string_view>

#include "base/parse_number.h"
#include "log/log.h"

namespace vesk {

namespace {

std::optional<int> parseVersion(std::string_view text) {
    if (text == "udpv1") {
        return 1;
    }
    if (text == "udpv2") {
        return 2;
    }
    logError("Bad UDP version argument [", text, "]");
    return std::nullopt;
}

/// A number of whole seconds, which must not overflow in nanoseconds. A minus sign is refused,
/// since a negative number would wrap and might become a small positive one.
std::optional<std::chrono::nanoseconds> parseInterval(const std::string& text) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    constexpr auto longest = std::chrono::duration_cast<seconds>(nanoseconds::max());
    const std::optional<std::uint64_t> count = parseUnsigned(text);
    if (!count || *count == 0 || *count > static_cast<std::uint64_t>(longest.count()) ||
        text.find('-') != std::string::npos) {
        logError("Bad duration argument [", text, "]");
        return std::nullopt;
    }
    return seconds(*count);
}

std::optional<bool> parseSwitch(std::size_t position, std::string_view text) {
    if (text == "true" || text == "false") {
        return text == "true";
    }
    logError("Bad flag argument at index [", position, "]: [", text, "]");
    return std::nullopt;
}

/// Stores a value if it was parsed. Returns whether it was.
template <typename Value>
bool takeOver(const std::optional<Value>& parsed, Value& target) {
    target = parsed.value_or(target);
    return parsed.has_value();
}

bool parseArgument(std::size_t position, const char* text, Arguments& arguments) {
    switch (position) {
        case 1:
            return takeOver(parseVersion(text), arguments.framingVersion);
        case 2:
            return takeOver(parseInterval(text), arguments.cleanUpInterval);
        case 3:
            return takeOver(parseSwitch(position, text), arguments.cleanUp.main);
        case 4:
            return takeOver(parseSwitch(position, text), arguments.cleanUp.aux);
        default:
            return true;
    }
}

}  // namespace

std::optional<Arguments> parseArguments(std::span<const char* const> texts) {
    Arguments arguments;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!parseArgument(i + 1, texts[i], arguments)) {
            return std::nullopt;
        }
    }
    return arguments;
}

}  // namespace vesk
