// From a line of text to words and named attributes. Strings only: what the words mean is decided
// by the handlers. Called on the main thread.
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

/// Splits at blanks, tabs, line feeds and carriage returns; nothing else separates, nothing quotes.
TokenQueue splitCommandLine(std::string_view line);

/// Reads the queue as name and value pairs and consumes it whole; a last name without a value is
/// dropped. The first value of a name wins. The halves of an address ("up_ip", "up_port" and so on,
/// where the last value wins) are folded into one attribute of the form address|port, which does
/// not replace one that the line gives whole.
AttributeMap parseCommandAttrs(TokenQueue& tokens);

/// The attribute's value, or null where it is missing or empty. Valid as long as the map.
const std::string* findNonEmpty(const AttributeMap& attributes, std::string_view name);

/// Whether the parser left nothing over; logs "missing value after ..." for the handler `routine`
/// where it did. It never does; the handlers ask all the same, so that a parser that learns to stop
/// early cannot make them act on half a command.
bool consumedWhole(const TokenQueue& tokens, std::string_view routine);

}  // namespace vesk
