#include "config/variables.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "config/key_mask.h"
#include "config/table_reader.h"

namespace vesk::controller {

namespace {

constexpr std::string_view nameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

/// Copies a text and replaces its variables.
class Replacer {
 public:
    explicit Replacer(std::string_view text) : rest_(text) {
        while (problem_.empty() && !rest_.empty()) {
            const std::size_t plain = std::min(rest_.find('$'), rest_.size());
            result_ += rest_.substr(0, plain);
            rest_.remove_prefix(plain);
            if (!rest_.empty()) {
                takeDollar();
            }
        }
        wholeString_ =
            variables_ == 1 && text.starts_with("${") && text.find('}') + 1 == text.size();
    }

    const std::string& problem() const { return problem_; }
    const std::string& result() const { return result_; }
    bool wholeString() const { return wholeString_; }

 private:
    void takeDollar() {
        constexpr std::string_view escaped = "$${";
        constexpr std::string_view begin = "${";
        if (rest_.starts_with(escaped)) {
            result_ += begin;
            rest_.remove_prefix(escaped.size());
        } else if (rest_.starts_with(begin)) {
            rest_.remove_prefix(begin.size());
            takeVariable();
        } else {
            result_ += '$';
            rest_.remove_prefix(1);
        }
    }

    void takeVariable() {
        const std::size_t length = std::min(rest_.find_first_not_of(nameCharacters), rest_.size());
        const std::string name(rest_.substr(0, length));
        if (name.empty()) {
            problem_ = R"(has "${" without the name of a variable after it)";
        } else if (length == rest_.size() || rest_[length] != '}') {
            problem_ = "has \"${" + shownName(name) + "\" without \"}\" after it";
            // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
        } else if (const char* const value = std::getenv(name.c_str())) {
            result_ += value;
            rest_.remove_prefix(length + 1);
            ++variables_;
        } else {
            problem_ = "needs the environment variable " + shownName(name) + ", which is not set";
        }
    }

    std::string_view rest_;
    std::string result_;
    std::string problem_;
    int variables_ = 0;
    bool wholeString_ = false;
};

void replaceIn(toml::table& table, const std::string& place, ReplacedVariables& replaced);

void replaceIn(toml::node& node, const std::string& place, ReplacedVariables& replaced) {
    if (toml::table* const table = node.as_table()) {
        replaceIn(*table, place, replaced);
    } else if (toml::array* const array = node.as_array()) {
        for (toml::node& element : *array) {
            replaceIn(element, place, replaced);
        }
    } else if (toml::value<std::string>* const text = node.as_string()) {
        if (text->get().find('$') == std::string::npos) {
            return;
        }
        const Replacer replacer(text->get());
        if (!replacer.problem().empty()) {
            replaced.problems.push_back(
                {place, {node.source().begin.line, place + " " + replacer.problem()}});
            return;
        }
        text->get() = replacer.result();
        if (replacer.wholeString()) {
            replaced.wholeStrings.insert(&node);
        }
    }
}

void replaceIn(toml::table& table, const std::string& place, ReplacedVariables& replaced) {
    for (auto&& [key, node] : table) {
        const std::string name = printableName(key.str());
        replaceIn(node, place.empty() ? name : std::string(place).append(".").append(name),
                  replaced);
    }
}

}  // namespace

ReplacedVariables replaceVariables(toml::table& table) {
    ReplacedVariables replaced;
    replaceIn(table, "", replaced);
    return replaced;
}

}  // namespace vesk::controller
