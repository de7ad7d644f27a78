#include "config/table_reader.h"

#include <algorithm>
#include <utility>

#include "config/key_mask.h"

namespace vesk::controller {

std::string printableName(std::string_view name) {
    std::string result = maskKeyDigits(name);
    std::replace_if(
        result.begin(), result.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    return result;
}

TableReader::TableReader(const toml::table& table, std::string place, Problems& problems)
    : table_(table), place_(std::move(place)), problems_(&problems) {}

std::uint32_t TableReader::lineOf(std::string_view key) const {
    const toml::node* const node = table_.get(key);
    return (node != nullptr ? node->source() : table_.source()).begin.line;
}

std::string TableReader::placeOf(std::string_view key) const {
    return place_.empty() ? printableName(key) : place_ + "." + printableName(key);
}

void TableReader::complain(std::string_view key, std::string_view text) {
    problems_->push_back({lineOf(key), placeOf(key) + " " + std::string(text)});
}

const toml::node* TableReader::find(std::string_view key) {
    known_.emplace(key);
    return table_.get(key);
}

bool TableReader::require(std::string_view key) {
    if (find(key) != nullptr) {
        return true;
    }
    complain(key, "is missing");
    return false;
}

std::optional<std::int64_t> TableReader::integer(std::string_view key, std::int64_t least,
                                                 std::int64_t greatest) {
    const toml::node* const node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<std::int64_t>* const value = node->as_integer();
    if (value == nullptr || value->get() < least || value->get() > greatest) {
        complain(key, "must be an integer from " + std::to_string(least) + " to " +
                          std::to_string(greatest));
        return std::nullopt;
    }
    return value->get();
}

std::optional<bool> TableReader::boolean(std::string_view key) {
    const toml::node* const node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<bool>* const value = node->as_boolean();
    if (value == nullptr) {
        complain(key, "must be true or false");
        return std::nullopt;
    }
    return value->get();
}

std::optional<std::string> TableReader::text(std::string_view key) {
    const toml::node* const node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::value<std::string>* const value = node->as_string();
    if (value == nullptr) {
        complain(key, "must be a string in quotes");
        return std::nullopt;
    }
    return value->get();
}

std::optional<std::string> TableReader::choice(std::string_view key,
                                               std::span<const std::string_view> choices) {
    std::optional<std::string> value = text(key);
    if (!value || std::ranges::find(choices, *value) != choices.end()) {
        return value;
    }
    std::string list;
    for (const std::string_view it : choices) {
        list.append(list.empty() ? "\"" : ", \"").append(it).append("\"");
    }
    complain(key, "must be one of " + list);
    return std::nullopt;
}

std::optional<TableReader> TableReader::table(std::string_view key) {
    const toml::node* const node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const toml::table* const value = node->as_table();
    if (value == nullptr) {
        complain(key, "must be a table");
        return std::nullopt;
    }
    return TableReader(*value, placeOf(key), *problems_);
}

const toml::array* TableReader::array(std::string_view key) {
    const toml::node* const node = find(key);
    if (node == nullptr) {
        return nullptr;
    }
    const toml::array* const value = node->as_array();
    if (value == nullptr) {
        complain(key, "must be an array");
    }
    return value;
}

void TableReader::refuseUnknown() {
    for (const auto& [key, node] : table_) {
        if (!known_.contains(key.str())) {
            problems_->push_back(
                {node.source().begin.line, placeOf(key.str()) + " is not a known key"});
        }
    }
}

}  // namespace vesk::controller
