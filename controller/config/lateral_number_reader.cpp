#include "config/lateral_number_reader.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "config/address_reader.h"

namespace vesk::controller {

namespace {

constexpr std::string_view environmentPrefix = "env:";

/// A key of the table, and the range of its number.
struct NumberKey {
    std::string_view name;
    std::string_view source;  // the key that says where the number is
    std::int64_t least;
    bool hostName;  // the source may be the host name
};

bool areDigits(std::string_view text) {
    return !text.empty() &&
           std::ranges::all_of(text, [](char digit) { return digit >= '0' && digit <= '9'; });
}

/// None, after a problem that begins with `which` was added, if it is out of range.
std::optional<std::uint32_t> numberOf(TableReader& table, const NumberKey& key,
                                      std::string_view digits, const std::string& which) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error == std::errc() && number >= key.least) {
        return number;
    }
    table.complain(key.source, which + "not from " + std::to_string(key.least) + " to " +
                                   std::to_string(greatestNumber));
    return std::nullopt;
}

std::optional<std::uint32_t> numberOfVariable(TableReader& table, const NumberKey& key,
                                              const std::string& name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const value = std::getenv(name.c_str());
    const std::string which = "names the environment variable " + name + ", which is ";
    if (value == nullptr) {
        table.complain(key.source, which + "not set");
        return std::nullopt;
    }
    if (*value == '\0') {
        table.complain(key.source, which + "empty");
        return std::nullopt;
    }
    if (!areDigits(value)) {
        table.complain(key.source, which + "not a number");
        return std::nullopt;
    }
    return numberOf(table, key, value, which);
}

std::optional<std::uint32_t> numberOfHost(TableReader& table, const NumberKey& key) {
    std::array<char, HOST_NAME_MAX + 1> name{};
    gethostname(name.data(), name.size() - 1);
    const std::string_view ordinal = ordinalOf(name.data());
    const std::string which = "takes the number after the last \"-\" of the host name, but \"" +
                              std::string(name.data()) + "\" ";
    if (ordinal.empty()) {
        table.complain(key.source, which + "has none");
        return std::nullopt;
    }
    return numberOf(table, key, ordinal, which + "has one that is ");
}

std::optional<std::uint32_t> numberOfSource(TableReader& table, const NumberKey& key) {
    const std::optional<std::string> source = table.text(key.source);
    if (!source) {
        return std::nullopt;
    }
    if (key.hostName && *source == "hostname") {
        return numberOfHost(table, key);
    }
    if (source->starts_with(environmentPrefix) && source->size() > environmentPrefix.size()) {
        return numberOfVariable(table, key, source->substr(environmentPrefix.size()));
    }
    table.complain(key.source,
                   key.hostName ? "must be \"hostname\" or \"env:NAME\"" : "must be \"env:NAME\"");
    return std::nullopt;
}

LateralNumber readLateralNumber(TableReader& table, const NumberKey& key) {
    const bool fromSource = table.has(key.source);
    if (!fromSource) {
        const bool given = table.require(key.name);
        const std::optional<std::int64_t> number =
            table.integer(key.name, key.least, greatestNumber);
        return {std::string(key.name), given && number,
                static_cast<std::uint32_t>(number.value_or(0))};
    }
    const std::optional<std::uint32_t> number = numberOfSource(table, key);
    if (table.has(key.name)) {
        table.require(key.name);
        table.complain(key.source, "and " + std::string(key.name) + " are mutually exclusive");
    }
    return {std::string(key.source), number.has_value(), number.value_or(0)};
}

}  // namespace

std::string_view ordinalOf(std::string_view hostName) {
    const std::string_view host = hostName.substr(0, hostName.find('.'));
    const std::size_t dash = host.rfind('-');
    if (dash == std::string_view::npos) {
        return {};
    }
    const std::string_view ordinal = host.substr(dash + 1);
    return areDigits(ordinal) ? ordinal : std::string_view();
}

LateralNumber readLateralIndex(TableReader& table) {
    return readLateralNumber(table, {"index", "index_from", 0, true});
}

LateralNumber readLateralInstances(TableReader& table) {
    return readLateralNumber(table, {"instances", "instances_from", 1, false});
}

}  // namespace vesk::controller
