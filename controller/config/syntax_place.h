// Finds the place of a syntax error in the text of a TOML file: the table, the key and the column,
// with keys masked. Called by config/syntax_error.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::controller {

/// The first `count` lines, or fewer if the text has fewer; at least one.
std::vector<std::string_view> firstLines(std::string_view text, std::size_t count);

/// The name in "[name]" or "[[name]]"; nothing for any other line.
std::optional<std::string_view> tableNamedBy(std::string_view line);

/// The end of the first `count` characters of UTF-8 text, in bytes.
std::size_t endOfCharacters(std::string_view text, std::size_t count);

/// "table flows.alice, key from_peer.key, column 23"; a table or key that does not exist is left
/// out. The column is in the last of the lines, which are the beginning of the file.
std::string placeOf(const std::vector<std::string_view>& lines, std::size_t column);

}  // namespace vesk::controller
