// What "set" makes of its attributes, written once more for the fuzz target: a plain description of
// each kind of value in place of the forwarder's table of validators.
#pragma once

#include <map>
#include <string>

namespace vesk::fuzz {

enum class Verdict {
    accepted,
    refused,
    /// The resolver has the say, on an address that is perhaps none; or the C library, on whether
    /// the greatest number is out of range.
    undetermined
};

using Attributes = std::map<std::string, std::string, std::less<>>;

/// For attributes as a line's words were folded into.
Verdict verdictOnSet(const Attributes& attributes);

/// The value of a label that was accepted.
unsigned labelOf(const Attributes& attributes);

}  // namespace vesk::fuzz
