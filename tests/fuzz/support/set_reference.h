// A second implementation of how "set" handles its attributes, for the fuzz target: a plain
// description of each kind of value instead of the forwarder's attribute table.
#pragma once

#include <map>
#include <string>

namespace vesk::fuzz {

enum class Verdict {
    accepted,
    refused,
    /// Depends on the resolver, which may refuse the address, or on the C library, which may treat
    /// the largest number as out of range.
    undetermined
};

using Attributes = std::map<std::string, std::string, std::less<>>;

/// For the attributes parsed from the words of a line.
Verdict verdictOnSet(const Attributes& attributes);

/// The value of a label that was accepted.
unsigned labelOf(const Attributes& attributes);

}  // namespace vesk::fuzz
