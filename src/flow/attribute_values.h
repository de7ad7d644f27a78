// Checks, parses and stores attribute values, with one function for each kind. Called on the main
// thread, through the table of attributes (flow/flow_attributes).
//
// Each function stores the value in the member and returns true. If it refuses the value, it logs
// the reason, leaves the member unchanged and returns false. `name` is the attribute's name, for
// the log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"

namespace vesk {

/// A key of 1 to 128 bytes, each given by two hexadecimal digits.
bool Vesk_validateHmacKeyString(std::string_view name, const std::string& value, HmacInfo& key);

/// "sha1" or "sha256".
bool Vesk_validateHmacAlgoString(std::string_view name, const std::string& value,
                                 HmacInfo& algorithm);

/// Host and port, separated by "|"; either may be empty. May block in the resolver. If the resolver
/// fails, std::runtime_error is thrown.
bool Vesk_validateAddrInfoString(std::string_view name, const std::string& value,
                                 IPAddrInfo& address);

/// -1 (no mark) to 63. A number outside this range is logged and ignored, and the result is true.
bool Vesk_validateDscpString(std::string_view name, const std::string& value, std::int32_t& dscp);

/// "true" or "false".
bool Vesk_validateIsMultiplexString(std::string_view name, const std::string& value, bool& flag);

/// A 32-bit label or a 16-bit prefix of labels: not 0, and at most the maximum of the type.
bool validateLabelLikeString(std::string_view name, const std::string& value, std::uint32_t& label);
bool validateLabelLikeString(std::string_view name, const std::string& value,
                             std::uint16_t& prefix);

}  // namespace vesk
