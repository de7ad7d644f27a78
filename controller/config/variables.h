// Replaces ${NAME} in the strings of a configuration file by environment variables. Called by
// config/document.
#pragma once

#include <toml++/toml.h>

#include <set>
#include <string>
#include <vector>

#include "config/problem.h"

namespace vesk::controller {

/// A problem of a string, and the string's place, such as "flows.alice.upstream".
struct StringProblem {
    std::string place;
    Problem problem;
};

struct ReplacedVariables {
    /// The strings that consist of one variable and nothing else.
    std::set<const toml::node*> wholeStrings;
    std::vector<StringProblem> problems;
};

/// Replaces ${NAME} in all strings of the table, but not in names of keys and tables. $${ stands
/// for ${, and any other $ for itself. What a variable contains is not searched for variables. A
/// string with a problem is left unchanged; no problem contains the value of a variable.
ReplacedVariables replaceVariables(toml::table& table);

}  // namespace vesk::controller
