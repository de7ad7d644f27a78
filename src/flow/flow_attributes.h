// The attributes of a flow as text: the table of their names, and a validator for each kind, which
// parses the text into a scratch record. Called on the main thread.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "base/command_line.h"
#include "flow/flow_desc.h"

namespace vesk {

/// Stores the value in the record and returns true, or logs why not and returns false. A resolver
/// failure passes through as std::runtime_error.
using AttributeValidator = bool (*)(std::string_view name, const std::string& value,
                                    FlowDesc& scratch);

/// The 22 attributes, sorted by name.
const std::map<std::string_view, AttributeValidator>& flowAttributeTable();

/// Validates all attributes, in the order of their names, up to the first that is refused; a label
/// is required. What was stored by then stays in the scratch record.
bool Vesk_setFlowDescLabelAttrs(const AttributeMap& attributes, FlowDesc& scratch);

bool Vesk_validateHmacKeyString(std::string_view name, const std::string& value, FlowDesc& scratch);
bool Vesk_validateHmacAlgoString(std::string_view name, const std::string& value,
                                 FlowDesc& scratch);
bool Vesk_validateAddrInfoString(std::string_view name, const std::string& value,
                                 FlowDesc& scratch);
bool Vesk_validateDscpString(std::string_view name, const std::string& value, FlowDesc& scratch);
bool Vesk_validateIsMultiplexString(std::string_view name, const std::string& value,
                                    FlowDesc& scratch);

/// For the 32-bit labels and for the 16-bit prefix: not 0, and at most the type's maximum.
bool validateLabelLikeString(std::string_view name, const std::string& value, std::uint32_t& label);
bool validateLabelLikeString(std::string_view name, const std::string& value,
                             std::uint16_t& prefix);

}  // namespace vesk
