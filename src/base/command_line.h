// Splits a line into words, and words into named attributes. The values stay strings, which the
// handlers interpret. Called on the main thread.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <string_view>

namespace vesk {

/// The words of one line, in order.
using TokenQueue = std::deque<std::string>;

/// Attribute name to value, sorted by name.
using AttributeMap = std::map<std::string, std::string, std::less<>>;

/// Splits at blanks, tabs, line feeds and carriage returns. There are no other separators and no
/// quotes.
TokenQueue splitCommandLine(std::string_view line);

/// Reads the words as pairs of name and value, and empties the queue; a last name without a value
/// is dropped. If a name occurs twice, its first value counts. The two parts of an address
/// ("up_ip", "up_port" and so on, of which the last value counts) are combined to one attribute of
/// the form address|port, unless the line has that attribute itself.
AttributeMap parseCommandAttrs(TokenQueue& tokens);

/// The attribute's value, or null if it is missing or empty. Valid as long as the map is unchanged.
const std::string* findNonEmpty(const AttributeMap& attributes, std::string_view name);

/// Whether the parser consumed all words; if not, logs "missing value after ..." for the handler
/// `routine`. At present the parser always does. The handlers check nevertheless, so that they
/// never act on half a command if the parser changes.
bool consumedWhole(const TokenQueue& tokens, std::string_view routine);

}  // namespace vesk
