// One TOML table, read key by key: types and ranges are checked, whatever was not asked for is
// reported at the end, and every problem names its place. Called by the readers in config/.
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

/// Each getter returns nothing where the key is missing, or, after a complaint, where its value
/// is not usable. Table and problems have to outlive the reader.
class TableReader {
 public:
    /// `place` is the table's name in complaints, "" for the file's root.
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

    /// Complains where the key is missing.
    bool require(std::string_view key);

    /// Complains about the value of a key, or about the table where the key is not in it.
    void complain(std::string_view key, std::string_view text);

    /// To be called when all keys were asked for: complains about all others.
    void refuseUnknown();

    /// Line of a key's value, or of the table where the key is not in it.
    std::uint32_t lineOf(std::string_view key) const;

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
