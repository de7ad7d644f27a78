// Describes a syntax error of a TOML file: the table, the key, the column and the cause. The
// parser's own description quotes the file, including keys, so it is not repeated. Called by
// config/configuration_reader.
#pragma once

#include <toml++/toml.h>

#include <string_view>

#include "config/problem.h"

namespace vesk::controller {

/// `text` is the whole file.
Problem describeSyntaxError(std::string_view text, const toml::parse_error& error);

}  // namespace vesk::controller
