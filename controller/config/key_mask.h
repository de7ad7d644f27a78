// Hides keys that an operator entered in the wrong place, for instance as a flow's name. Called
// wherever text from a file, or a path, is printed: by config/ for messages, warnings, places and
// the names of flows, by service/supervisor for paths, by service/options for arguments. Any
// thread.
#pragma once

#include <string>
#include <string_view>

namespace vesk::controller {

/// The text with each run of 16 or more hex digits replaced by "<key of N digits>". White space,
/// colons, dashes and underscores may group the digits. Labels, ports and IPv4 addresses are
/// shorter, but an IPv6 address may not be, so the text must not contain one.
std::string maskKeyDigits(std::string_view text);

/// Whether a name or a path has such a run. Here dots may group the digits, too: TOML splits a key
/// at them.
bool mayHoldKey(std::string_view text);

/// The name, or "..." for one that may hold a key; control characters become question marks.
std::string shownName(std::string_view text);

}  // namespace vesk::controller
