// Reads the text of a configuration file as far as its syntax and its variables, before the readers
// of its tables. Called by config/configuration_reader and config/fragments/fragment_reader.
#pragma once

#include <toml++/toml.h>

#include <filesystem>
#include <optional>
#include <string_view>

#include "config/problem.h"
#include "config/variables.h"

namespace vesk::controller {

/// The greatest size of a configuration file in bytes.
inline constexpr std::size_t maxConfigurationFile = std::size_t{256} << 20U;

struct Document {
    toml::table table;
    ReplacedVariables variables;
};

/// None, after a problem was added, if the text is not TOML.
std::optional<Document> parseDocument(std::string_view text, const std::filesystem::path& file,
                                      Problems& problems);

/// To be called when all tables have been read: adds the problems with variables, removes problems
/// that only follow from these, and sorts by lines.
void completeProblems(const Document& document, Problems& problems);

}  // namespace vesk::controller
