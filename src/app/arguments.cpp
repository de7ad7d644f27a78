#include "app/arguments.h"

#include <limits>
#include <string>
#include <string_view>

#include "base/parse_number.h"
#include "log/log.h"

namespace vesk {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

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

/// Whole seconds, as nanoseconds; they have to fit. A sign would let huge negative numbers wrap
/// into small ones.
std::optional<std::int64_t> parseInterval(const std::string& text) {
    constexpr std::uint64_t longest =
        std::numeric_limits<std::int64_t>::max() / nanosecondsPerSecond;
    const std::optional<std::uint64_t> seconds = parseUnsigned(text);
    if (!seconds || *seconds == 0 || *seconds > longest || text.find('-') != std::string::npos) {
        logError("Bad duration argument [", text, "]");
        return std::nullopt;
    }
    return static_cast<std::int64_t>(*seconds) * nanosecondsPerSecond;
}

std::optional<bool> parseSwitch(std::size_t position, std::string_view text) {
    if (text == "true" || text == "false") {
        return text == "true";
    }
    logError("Bad flag argument at index [", position, "]: [", text, "]");
    return std::nullopt;
}

/// Takes over what was parsed, if anything was; whether it was.
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
            return takeOver(parseInterval(text), arguments.cleanUpIntervalNanoseconds);
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
