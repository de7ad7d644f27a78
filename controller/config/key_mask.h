// Hides keys that an operator has put in the wrong place of a file, a flow's name for instance.
// Called wherever text out of a file, or a path, becomes something to read: config/ for messages,
// warnings, places and the names of flows, service/supervisor for paths, options for arguments. Any
// thread.
#pragma once

#include <string>
#include <string_view>

namespace vesk::controller {

/// The text with each run of 16 or more hex digits replaced by "<key of N digits>". Blanks, colons,
/// dashes and underscores may group the digits. Labels, ports and IPv4 addresses are shorter; an
/// IPv6 address may not be, so text with addresses is not for this function.
std::string maskKeyDigits(std::string_view text);

/// Whether a name or a path has such a run. Dots may group the digits there, too: TOML splits a key
/// at them.
bool mayHoldKey(std::string_view text);

/// The name, or "..." for one that may hold a key; control characters become question marks.
std::string shownName(std::string_view text);

}  // namespace vesk::controller
