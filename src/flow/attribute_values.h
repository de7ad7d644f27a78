// The text of each kind of attribute value: checked, parsed and stored. Called on the main thread,
// through the table of attributes (flow/flow_attributes).
//
// Each function stores the value in the member and returns true, or logs why not, leaves the member
// unchanged and returns false. `name` is the attribute's, for the log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"

namespace vesk {

/// A key as pairs of hexadecimal digits.
bool Vesk_validateHmacKeyString(std::string_view name, const std::string& value, HmacInfo& key);

/// "sha1" or "sha256".
bool Vesk_validateHmacAlgoString(std::string_view name, const std::string& value,
                                 HmacInfo& algorithm);

/// Host and port with a "|" between them; either may be empty. A resolver failure passes through as
/// std::runtime_error.
bool Vesk_validateAddrInfoString(std::string_view name, const std::string& value,
                                 IPAddrInfo& address);

/// -1 to 63. A number outside is logged and ignored, and the result is true.
bool Vesk_validateDscpString(std::string_view name, const std::string& value, std::int32_t& dscp);

/// "true" or "false".
bool Vesk_validateIsMultiplexString(std::string_view name, const std::string& value, bool& flag);

/// For the 32-bit labels and for the 16-bit prefix: not 0, and at most the type's maximum.
bool validateLabelLikeString(std::string_view name, const std::string& value, std::uint32_t& label);
bool validateLabelLikeString(std::string_view name, const std::string& value,
                             std::uint16_t& prefix);

}  // namespace vesk
