#include "flow/flow_attributes.h"

#include <limits>
#include <optional>
#include <span>
#include <stdexcept>

#include "base/parse_number.h"
#include "base/secret_bytes.h"
#include "log/log.h"

namespace vesk {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";

/// Longer key texts are refused; the odd bound is harmless, since an odd length was refused before.
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

bool validateLabelString(std::string_view name, const std::string& value, FlowDesc& scratch) {
    return validateLabelLikeString(name, value, refLabelByName(scratch, name));
}

bool validatePrefixString(std::string_view name, const std::string& value, FlowDesc& scratch) {
    return validateLabelLikeString(name, value, scratch.downAuxFlowLabelPrefix);
}

}  // namespace

const std::map<std::string_view, AttributeValidator>& flowAttributeTable() {
    static const std::map<std::string_view, AttributeValidator> table{
        {attribute::downInKey, Vesk_validateHmacKeyString},
        {attribute::downOutKey, Vesk_validateHmacKeyString},
        {attribute::upInKey, Vesk_validateHmacKeyString},
        {attribute::upOutKey, Vesk_validateHmacKeyString},
        {attribute::downAddrInfo, Vesk_validateAddrInfoString},
        {attribute::upAddrInfo, Vesk_validateAddrInfoString},
        {attribute::upSrcAddrInfo, Vesk_validateAddrInfoString},
        {attribute::upAuxFlowAddrInfo, Vesk_validateAddrInfoString},
        {attribute::downInAlgo, Vesk_validateHmacAlgoString},
        {attribute::downOutAlgo, Vesk_validateHmacAlgoString},
        {attribute::upInAlgo, Vesk_validateHmacAlgoString},
        {attribute::upOutAlgo, Vesk_validateHmacAlgoString},
        {attribute::downOutDscpV4, Vesk_validateDscpString},
        {attribute::downOutDscpV6, Vesk_validateDscpString},
        {attribute::upOutDscpV4, Vesk_validateDscpString},
        {attribute::upOutDscpV6, Vesk_validateDscpString},
        {attribute::label, validateLabelString},
        {attribute::downLabel, validateLabelString},
        {attribute::upLabel, validateLabelString},
        {attribute::upAuxFlowLabel, validateLabelString},
        {attribute::downAuxFlowLabelPrefix, validatePrefixString},
        {attribute::isMultiplex, Vesk_validateIsMultiplexString},
    };
    return table;
}

bool Vesk_setFlowDescLabelAttrs(const AttributeMap& attributes, FlowDesc& scratch) {
    constexpr std::string_view prefix = "Vesk_setFlowDescLabelAttrs: Invalid Attr, ";
    if (attributes.find(attribute::label) == attributes.end()) {
        logError(prefix, " 'label' field is missing");
        return false;
    }
    for (const auto& [name, value] : attributes) {
        const auto row = flowAttributeTable().find(name);
        if (row == flowAttributeTable().end()) {
            logError(prefix, " name '", name, "' unrecognized");
            return false;
        }
        if (!row->second(name, value, scratch)) {
            return false;
        }
    }
    return true;
}

bool Vesk_validateHmacKeyString(std::string_view name, const std::string& value,
                                FlowDesc& scratch) {
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
    refHmacInfoByName(scratch, name).setKey(std::span(bytes).first(length));
    return true;
}

bool Vesk_validateHmacAlgoString(std::string_view name, const std::string& value,
                                 FlowDesc& scratch) {
    for (const HmacAlgorithm* const algorithm : {&hmacSha1, &hmacSha256}) {
        if (value == algorithm->name) {
            refHmacInfoByName(scratch, name).setAlgorithm(*algorithm);
            return true;
        }
    }
    logError("Vesk_validateHmacAlgoString: unknown algo '", value, "'");
    return false;
}

bool Vesk_validateAddrInfoString(std::string_view name, const std::string& value,
                                 FlowDesc& scratch) {
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
        refAddrInfoByName(scratch, name) = IPAddrInfo(host, static_cast<std::uint32_t>(*port));
    } catch (const std::invalid_argument& unusable) {
        return refuse(unusable.what());
    }
    return true;
}

bool Vesk_validateDscpString(std::string_view name, const std::string& value, FlowDesc& scratch) {
    // Kept: neither text closes the quote that the prefix opens as a reader would expect it to.
    constexpr std::string_view prefix = "Vesk_validateDscpString: '";
    constexpr std::int64_t largestDscp = 63;
    const std::optional<std::int64_t> dscp = parseSigned(value);
    if (!dscp) {
        logError(prefix, " Bad dscp value: ", value);
        return false;
    }
    if (*dscp < noDscp || *dscp > largestDscp) {
        // A mark that cannot be made is worth less than the flow that asked for it.
        logWarn(prefix, " Ignore invalid DSCP value: ", value, "'");
        return true;
    }
    refDscpByName(scratch, name) = static_cast<std::int32_t>(*dscp);
    return true;
}

bool Vesk_validateIsMultiplexString(std::string_view /*name*/, const std::string& value,
                                    FlowDesc& scratch) {
    if (value != "true" && value != "false") {
        // Kept: the quote after the colon is never closed.
        logError("Vesk_validateIsMultiplexString: '", " Bad isMultiplex value: ", value);
        return false;
    }
    scratch.isMultiplex = value == "true";
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
