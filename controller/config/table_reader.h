// Reads one TOML table key by key: checks types and ranges, reports keys that were not read as
// unknown, and names the place of each problem. Called by the readers in config/.
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "config/problem.h"

namespace vesk::controller {

/// The name without keys and line breaks: a quoted name may contain any character, and even a key.
std::string printableName(std::string_view name);

/// Each getter returns nothing if the key is missing, or if its value is not usable; then it also
/// adds a problem. Table and problems must outlive the reader.
class TableReader {
 public:
    /// `place` is the table's name in problems, "" for the file's root.
    TableReader(const toml::table& table, std::string place, Problems& problems);

    bool has(std::string_view key) const { return table_.contains(key); }

    std::optional<std::int64_t> integer(std::string_view key, std::int64_t least,
                                        std::int64_t greatest);
    std::optional<bool> boolean(std::string_view key);
    std::optional<std::string> text(std::string_view key);
    std::optional<std::string> choice(std::string_view key,
                                      std::span<const std::string_view> choices);
    std::optional<TableReader> table(std::string_view key);
    const toml::array* array(std::string_view key);

    /// Adds a problem if the key is missing.
    bool require(std::string_view key);

    /// Adds a problem about the value of a key; on the line of the table if the key is not in it.
    void complain(std::string_view key, std::string_view text);

    /// To be called when all known keys have been read: adds a problem for each other key.
    void refuseUnknown();

    /// The line of a key's value, or of the table if the key is not in it.
    std::uint32_t lineOf(std::string_view key) const;

    const std::string& place() const { return place_; }
    std::string placeOf(std::string_view key) const;
    const toml::table& raw() const { return table_; }
    Problems& problems() { return *problems_; }

 private:
    const toml::node* find(std::string_view key);

    const toml::table& table_;
    std::string place_;
    Problems* problems_;
    std::set<std::string, std::less<>> known_;
};

}  // namespace vesk::controller
