#include "config/address_reader.h"

#include <optional>

#include "config/numeric_address.h"

namespace vesk::controller {

std::string readAddress(TableReader& table, std::string_view key) {
    const std::optional<std::string> address = table.text(key);
    if (address && !isNumericHost(*address)) {
        table.complain(key, "must be a numeric address");
    }
    return address.value_or("");
}

std::uint16_t readPort(TableReader& table, std::string_view key) {
    return static_cast<std::uint16_t>(table.integer(key, 1, greatestPort).value_or(0));
}

std::uint32_t readNumber(TableReader& table, std::string_view key, std::int64_t least,
                         std::int64_t greatest) {
    table.require(key);
    return static_cast<std::uint32_t>(table.integer(key, least, greatest).value_or(0));
}

HostPort readListen(TableReader& table) {
    table.require("address");
    table.require("port");
    return {readAddress(table, "address"), readPort(table, "port")};
}

}  // namespace vesk::controller
