// Configurations as texts, for tests of what is read and of what comes of it.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"
#include "config/problem.h"

namespace vesk::controller {

/// What every file has to have.
inline constexpr std::string_view listening =
    "[downstream]\naddress = \"127.0.0.1\"\nport = 4500\n";

/// The configuration; fails the test where there is any problem.
Configuration configurationOf(std::string_view text);

/// The same for a text without [downstream].
Configuration listeningWith(std::string_view text);

/// All problems as "LINE: text", one a line; line 1 is the text's first.
std::string problemsOf(std::string_view text);

/// The same for a text that [downstream] is appended to.
std::string problemsBesides(std::string_view text);

}  // namespace vesk::controller
