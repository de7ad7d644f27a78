// Whether a piece of the file may be a key in a wrong place: a name, a path. Whatever repeats such
// a piece asks here first. Called by config/ wherever it names what it read.
#pragma once

#include <string>
#include <string_view>

namespace vesk::controller {

/// Whether 16 hex digits follow one another, with nothing between them but separators that people
/// group digits with: colons, dashes, underscores, dots and white space.
bool mayHoldKey(std::string_view text);

/// The text, or "..." for one that may hold a key; control characters become question marks.
std::string shownName(std::string_view text);

}  // namespace vesk::controller
