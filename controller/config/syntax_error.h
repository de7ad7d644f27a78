// What to say of a file that is not TOML: the table, the key and the column, and in words what is
// wrong there. The parser's own description quotes the file, keys included, so that none of it is
// repeated. Called by config/configuration_reader.
#pragma once

#include <toml++/toml.h>

#include <string_view>

#include "config/problem.h"

namespace vesk::controller {

/// `text` is the whole file.
Problem describeSyntaxError(std::string_view text, const toml::parse_error& error);

}  // namespace vesk::controller
