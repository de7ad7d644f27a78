// Reads configurations from texts, for tests of the readers and of the code that uses
// configurations.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"
#include "config/problem.h"

namespace vesk::controller {

/// The table that every file must contain.
inline constexpr std::string_view listening =
    "[downstream]\naddress = \"127.0.0.1\"\nport = 4500\n";

/// The configuration in the text; fails the test if it has a problem.
Configuration configurationOf(std::string_view text);

/// The same for a text without [downstream].
Configuration listeningWith(std::string_view text);

/// All problems, each on a line as "LINE: text"; the text begins with line 1.
std::string problemsOf(std::string_view text);

/// The same for a text to which [downstream] is appended.
std::string problemsBesides(std::string_view text);

}  // namespace vesk::controller
