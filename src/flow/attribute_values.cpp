#include "flow/attribute_values.h"

#include <limits>
#include <optional>
#include <span>
#include <stdexcept>

#include "base/parse_number.h"
#include "base/secret_bytes.h"
#include "flow/flow_desc.h"
#include "log/log.h"

namespace vesk {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";

/// Longer key texts are refused. The bound is odd, which has no effect: texts of odd length are
/// refused anyway.
constexpr std::size_t maxKeyTextLength = 2 * maxHmacKeyLength + 1;

unsigned hexValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    return static_cast<unsigned>((digit | 0x20) - 'a') + 10;
}

bool refuseKey(std::string_view reason) {
    logError("Vesk_validateHmacKeyString: bad key, ", reason);
    return false;
}

template <typename Label>
bool storeLabelLike(std::string_view name, const std::string& value, Label& target) {
    constexpr std::uint64_t maximum = std::numeric_limits<Label>::max();
    constexpr std::string_view prefix = "validateLabelLikeString: bad label-like value, ";
    const std::optional<std::uint64_t> number = parseUnsigned(value);
    if (!number) {
        logError(prefix, "'", name, "': bogus labelVal '", value, "'");
        return false;
    }
    if (*number == 0) {
        logError(prefix, "'", name, "': reserved labelVal '", value, "'");
        return false;
    }
    if (*number > maximum) {
        logError(prefix, "'", name, "': illegal labelVal '", value, "' exceeds '", maximum, "'");
        return false;
    }
    target = static_cast<Label>(*number);
    return true;
}

}  // namespace

bool Vesk_validateHmacKeyString(std::string_view /*name*/, const std::string& value,
                                HmacInfo& key) {
    if (value.empty()) {
        return refuseKey("empty");
    }
    if (value.size() % 2 != 0) {
        return refuseKey("odd length");
    }
    if (value.size() > maxKeyTextLength) {
        return refuseKey("too long");
    }
    if (value.find_first_not_of(hexDigits) != std::string::npos) {
        return refuseKey("illegal character");
    }
    SecretBytes<maxHmacKeyLength> bytes{};
    const std::size_t length = value.size() / 2;
    for (std::size_t i = 0; i < length; ++i) {
        bytes.at(i) =
            static_cast<std::uint8_t>(hexValue(value[2 * i]) << 4 | hexValue(value[2 * i + 1]));
    }
    key.setKey(std::span(bytes).first(length));
    return true;
}

bool Vesk_validateHmacAlgoString(std::string_view /*name*/, const std::string& value,
                                 HmacInfo& algorithm) {
    for (const HmacAlgorithm* const known : {&hmacSha1, &hmacSha256}) {
        if (value == known->name) {
            algorithm.setAlgorithm(*known);
            return true;
        }
    }
    logError("Vesk_validateHmacAlgoString: unknown algo '", value, "'");
    return false;
}

bool Vesk_validateAddrInfoString(std::string_view name, const std::string& value,
                                 IPAddrInfo& address) {
    const auto refuse = [&](std::string_view reason) {
        logError("Vesk_validateAddrInfoString: ", name, ": unresolvable address '", value, "'",
                 reason);
        return false;
    };
    const std::size_t separator = value.find('|');
    const bool whole = separator != std::string::npos;
    const std::string host = whole ? value.substr(0, separator) : std::string();
    const std::string portText = whole ? value.substr(separator + 1) : std::string();
    const std::optional<std::uint64_t> port = parseUnsigned(portText);
    if (!port) {
        return refuse(" Bad port value");
    }
    try {
        address = IPAddrInfo(host, static_cast<std::uint32_t>(*port));
    } catch (const std::invalid_argument& unusable) {
        return refuse(unusable.what());
    }
    return true;
}

bool Vesk_validateDscpString(std::string_view /*name*/, const std::string& value,
                             std::int32_t& dscp) {
    // Kept: the prefix opens a quote that the first text does not close and the second closes too
    // late.
    constexpr std::string_view prefix = "Vesk_validateDscpString: '";
    constexpr std::int64_t largestDscp = 63;
    const std::optional<std::int64_t> number = parseSigned(value);
    if (!number) {
        logError(prefix, " Bad dscp value: ", value);
        return false;
    }
    if (*number < noDscp || *number > largestDscp) {
        // The command is not refused: the flow matters more than its mark.
        logWarn(prefix, " Ignore invalid DSCP value: ", value, "'");
        return true;
    }
    dscp = static_cast<std::int32_t>(*number);
    return true;
}

bool Vesk_validateIsMultiplexString(std::string_view /*name*/, const std::string& value,
                                    bool& flag) {
    if (value != "true" && value != "false") {
        // Kept: the quote after the colon is never closed.
        logError("Vesk_validateIsMultiplexString: '", " Bad isMultiplex value: ", value);
        return false;
    }
    flag = value == "true";
    return true;
}

bool validateLabelLikeString(std::string_view name, const std::string& value,
                             std::uint32_t& label) {
    return storeLabelLike(name, value, label);
}

bool validateLabelLikeString(std::string_view name, const std::string& value,
                             std::uint16_t& prefix) {
    return storeLabelLike(name, value, prefix);
}

}  // namespace vesk
